// The support layer: assertions, profiler, intrusive pointers, XML.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "util/exceptions.h"
#include "util/ref_ptr.h"
#include "util/taskprofiler.h"
#include "xml/element.h"

UTIL_ASSERT_SOURCE("tests/platform")

namespace {

void failingCheck() {
    UTIL_ASSERT(!"This RenderTask does not support delayed locking.");
}

struct Counted : ThreadSafeRefBase {
    explicit Counted(int* destroyed) : destroyed(destroyed) {}
    ~Counted() override { ++*destroyed; }
    int* destroyed;
};

}  // namespace

TEST(Assertion, ThrowsWithExpressionSourceAndLine) {
    try {
        failingCheck();
        FAIL() << "no exception";
    } catch (const UTIL::AssertException& e) {
        EXPECT_EQ(e.expression(), "!\"This RenderTask does not support delayed locking.\"");
        EXPECT_EQ(e.source(), "tests/platform");
        EXPECT_GT(e.line(), 0);
        EXPECT_NE(std::string(e.what()).find("tests/platform:"), std::string::npos);
    }
    const int x = 3;
    EXPECT_NO_THROW(UTIL_ASSERT(x == 3));
    EXPECT_THROW(UTIL_ASSERT_TEXT(x == 4, "m_inputRequests.is_null(inputID)"),
                 UTIL::AssertException);
}

TEST(TaskProfiler, CountsAndTimesFromManyThreads) {
    UTIL::TaskProfiler profiler;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) profiler.addTime("work", 0.5);
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(profiler.getCount("work"), 4000u);
    EXPECT_DOUBLE_EQ(profiler.getTime("work"), 2000.0);
    { UTIL::TaskProfiler::Scope scope(profiler, "scoped"); }
    EXPECT_EQ(profiler.getCount("scoped"), 1u);
    EXPECT_GE(profiler.getTime("scoped"), 0.0);
    EXPECT_EQ(profiler.snapshot().size(), 2u);
    profiler.reset();
    EXPECT_EQ(profiler.getCount("work"), 0u);
    EXPECT_EQ(profiler.getTime("missing"), 0.0);
}

TEST(RefPtr, SharesAndDeletesWithTheLastReference) {
    int destroyed = 0;
    {
        RCX_ptr_v4::ref_ptr<Counted> a(new Counted(&destroyed));
        EXPECT_EQ(a->refCount(), 1u);
        RCX_ptr_v4::ref_ptr<Counted> b = a;
        EXPECT_EQ(a->refCount(), 2u);
        EXPECT_TRUE(a == b);
        RCX_ptr_v4::ref_ptr<ThreadSafeRefBase> base = a;  // upcast shares the count
        EXPECT_EQ(a->refCount(), 3u);
        b.reset();
        EXPECT_TRUE(b.is_null());
        b = std::move(a);
        EXPECT_TRUE(a.is_null());
        EXPECT_EQ(destroyed, 0);
        // Copies made and dropped concurrently leave the count exact.
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < 10000; ++i) RCX_ptr_v4::ref_ptr<Counted> copy = b;
            });
        for (auto& t : threads) t.join();
        EXPECT_EQ(b->refCount(), 2u);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(XmlElement, BuildsAndWritesEscapedText) {
    using namespace Orrery3::XmlIO::v1;
    ElementPtr root = Element::create("statistics");
    ElementPtr block = root->addChild("block");
    block->setAttr("name", "Image <Memory> & \"Management\"");
    block->setAttr("count", int64_t(3));
    block->setAttr("count", int64_t(4));  // replaces
    block->setAttr("on", true);
    block->setAttr("ratio", 0.5);
    root->addChild("empty");
    EXPECT_EQ(block->getAttr("count"), "4");
    EXPECT_EQ(block->getAttrs().size(), 4u);
    EXPECT_FALSE(block->hasAttr("missing"));
    EXPECT_EQ(root->findChild("empty")->getName(), "empty");
    EXPECT_TRUE(root->findChild("nothing").is_null());
    EXPECT_EQ(root->toString(),
              "<statistics>\n"
              "  <block name=\"Image &lt;Memory&gt; &amp; &quot;Management&quot;\" count=\"4\" "
              "on=\"true\" ratio=\"0.5\"/>\n"
              "  <empty/>\n"
              "</statistics>\n");
}
