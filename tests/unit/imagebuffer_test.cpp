// ImageBuffer handles, locking and the lock scopers.
#include <gtest/gtest.h>

#include "imglib/channels.h"
#include "support/local_allocator.h"
#include "support/serial_render.h"
#include "util/exceptions.h"

using namespace TESSERA;
using TESSERA::testing::assertionText;
using TESSERA::testing::LocalAllocator;

TEST(ImageBuffer, NullHandles) {
    ImageBuffer null;
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.getSize(), 0);
    EXPECT_EQ(null.getComment(), "unallocated image buffer");
    EXPECT_EQ(null.getImage(), nullptr);
    EXPECT_TRUE(null == ImageBuffer());
}

TEST(ImageBuffer, RowsArePaddedAndMemoryComesWithTheFirstLock) {
    LocalAllocator local;
    ImageBuffer a = local.make(IMGLIB::CHANNELS_RGB, UTIL::Rect(0, 0, 5, 3), "comment");
    // 5 pixels x 12 bytes = 60, padded to 64.
    EXPECT_EQ(a.getSize(), 64 * 3);
    EXPECT_EQ(a.getChannels(), IMGLIB::CHANNELS_RGB);
    EXPECT_EQ(a.getBounds(), UTIL::Rect(0, 0, 5, 3));
    EXPECT_EQ(local.allocator->getMemUsage(), 0);

    ImageBuffer b = a;  // a second handle on the same image
    EXPECT_TRUE(a == b);
    b.setComment("renamed");
    EXPECT_EQ(a.getComment(), "renamed");

    a.lock();
    EXPECT_EQ(local.allocator->getMemUsage(), 64 * 3);
    const IMGLIB::Image* image = a.getImage();
    EXPECT_EQ(image->rowBytes, 64);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(image->pixelPtr) % 16, 0u);
    a.unlock();
    a.setNull();
    b.setNull();
    EXPECT_EQ(local.allocator->getMemUsage(), 0);
}

TEST(ImageBuffer, EmptyImagesNeedNoLockAndNoMemory) {
    LocalAllocator local;
    ImageBuffer empty = local.make(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 0, 10));
    EXPECT_EQ(empty.getSize(), 0);
    EXPECT_NE(empty.getImage(), nullptr);  // allowed without a lock
    empty.lock();
    empty.lock();
    empty.unlock();
    empty.unlock();
    empty.unlock();  // does nothing, no assertion
    EXPECT_EQ(local.allocator->getMemUsage(), 0);
    EXPECT_EQ(local.allocator->getLockedImageCount(), 0u);
}

TEST(ImageBuffer, MisuseRaisesTheStatedAssertions) {
    LocalAllocator local;
    ImageBuffer a = local.make(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 4, 4));
    EXPECT_EQ(assertionText([&] { a.getImage(); }),
              "m_lockCount > 0 || m_isEmptyImage @ rendersystem/images/imagebuffer_imp");
    EXPECT_EQ(assertionText([&] { a.unlock(); }),
              "m_lockCount > 0 @ rendersystem/images/imagebuffer_imp");

    ::testing::internal::CaptureStderr();
    const std::string text =
        assertionText([&] { local.make(uint64_t(1) << 60, UTIL::Rect(0, 0, 4, 4)); });
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Invalid Channel Mask " + std::to_string(uint64_t(1) << 60) + "\n");
    EXPECT_EQ(text,
              "IMGLIB::IsChannelMaskValid(imgChannels) @ rendersystem/images/imagebuffer_imp");
}

TEST(ImageBuffer, NestedLocksMoveBetweenTheListsOnlyAtTheEnds) {
    LocalAllocator local;
    ImageBuffer a = local.make(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 4, 4));
    ImageBuffer b = local.make(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 4, 4));
    a.lock();
    a.lock();
    a.unlock();
    EXPECT_EQ(local.allocator->getLockedImageCount(), 1u);
    EXPECT_EQ(local.allocator->getUnlockedImageCount(), 0u);
    b.lock();
    b.unlock();
    a.unlock();
    EXPECT_EQ(local.allocator->getLockedImageCount(), 0u);
    EXPECT_EQ(local.allocator->getUnlockedImageCount(), 2u);
    // a went to the back: with room for one image only, b (older) is swapped first.
    local.allocator->setMaxMemory(a.getSize() + 16 + 1);
    ImageBuffer c = local.make(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 1, 1));
    c.lock();
    EXPECT_EQ(local.allocator->getDiskUsage(), b.getSize());
    EXPECT_EQ(local.allocator->getUnlockedImageCount(), 1u);
    c.unlock();
}

TEST(ImageBuffer, ScopersLockForTheirLifetime) {
    LocalAllocator local;
    ImageBuffer a = local.make(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 4, 4));
    ImageBuffer null;
    {
        ImageBuffer_LockScoper scoper(a);
        EXPECT_EQ(local.allocator->getLockedImageCount(), 1u);
    }
    EXPECT_EQ(local.allocator->getLockedImageCount(), 0u);
    {
        ImageBuffer_MultiLockScoper locks;
        EXPECT_EQ(locks.push(null), nullptr);
        EXPECT_NE(locks.push(a), nullptr);
        EXPECT_NE(locks.push(a), nullptr);
        a.setNull();  // the scoper holds its own copy
        EXPECT_EQ(local.allocator->getLockedImageCount(), 1u);
    }
    EXPECT_EQ(local.allocator->getLockedImageCount(), 0u);
    EXPECT_EQ(local.allocator->getMemUsage(), 0);  // the last copy went with the scoper
}

TEST(ImageBuffer, TempImageBufferIsLockedUntilDestroyed) {
    const int64_t before = Private::ImageAllocator::instance().getMemUsage();
    {
        TempImageBuffer temp(IMGLIB::CHANNEL_A, UTIL::Rect(0, 0, 8, 8), "temp");
        EXPECT_EQ(temp.getImage()->width(), 8);
        EXPECT_EQ(temp.imageBuffer().getComment(), "temp");
        EXPECT_EQ(Private::ImageAllocator::instance().getMemUsage(), before + 32 * 8);
    }
    EXPECT_EQ(Private::ImageAllocator::instance().getMemUsage(), before);
}
