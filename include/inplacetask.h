/// @file
/// InPlaceOp and InPlaceTask: pixel-wise operators, and the task that runs a
/// chain of them in one pass.
#pragma once

#include <Imath/ImathColor.h>

#include <cstddef>
#include <string>
#include <vector>

#include "imglib/pointops.h"
#include "rendertask.h"
#include "tessera_export.h"
#include "util/ref_ptr.h"

namespace TESSERA {

/// One pixel-wise operator: each output pixel depends only on the same input
/// pixel.
class TESSERA_API InPlaceOp : public ThreadSafeRefBase {
public:
    ~InPlaceOp() override;
    /// Writes every parameter that changes the output.
    virtual void computeCacheID(CacheIDStream& stream) = 0;
    /// Runs the operator over in into out (they may be the same image) and
    /// returns the IMGLIB status.
    virtual int apply(const IMGLIB::Image* out, const IMGLIB::Image* in) = 0;
    /// Channels produced from the given input channels (default: the same).
    virtual std::size_t getOutputChannels(std::size_t channels);
    /// Channels needed to produce the given output channels (default: the same).
    ///@{
    virtual std::size_t getRequiredInputChannels(std::size_t channels);
    virtual std::string getTypeString() = 0;
    ///@}
    /// The operator applied to one colour, for background colours. The default
    /// reports on standard error that it is missing and returns the colour.
    virtual Imath::Color4<float> applyToColor(const Imath::Color4<float>& color);
    /// The operator as an entry of IMGLIB's pixel-operator table, when it is
    /// one: a chain of such operators runs fused, one pass over memory.
    virtual const IMGLIB::PointOp* getPointOp() const { return nullptr; }
};

/// Operators are shared by reference count.
using InPlaceOpPtr = RCX_ptr_v4::ref_ptr<InPlaceOp>;

/// A task of one input whose operators run one after the other on one
/// buffer. Render set-up merges runs of such tasks (each with one consumer at
/// most) into the most downstream one, so a chain of grades costs one pass.
class TESSERA_API InPlaceTask : public RenderTask {
public:
    /// A null input throws RenderTaskRenderingException "InPlace tasks
    /// require an input" (code -1).
    InPlaceTask(const InPlaceOpPtr& op, const std::string& name, float time, TaskPtr input);

    /// The single operator; asserts "m_ops.size() == 1".
    const InPlaceOpPtr& getOp() const;
    /// Operators from the most downstream (0) to the most upstream (last).
    const std::vector<InPlaceOpPtr>& getOps() const { return m_ops; }
    /// Appends an operator upstream of the others.
    void appendOp(const InPlaceOpPtr& op);

    /// Merges each maximal run of in-place tasks in `chain` (tasks ordered from
    /// downstream to upstream along single-input links) into the run's first
    /// task, which then reads the input of the run's last.
    static void collapseChain(const std::vector<TaskPtr>& chain);

protected:
    /// The operator's type string, or "ConcatenatedInPlaceOp" for several.
    ///@{
    std::string getTypeString() override;
    void computeCacheID(CacheIDStream& stream) override;
    uint64_t computeOutputChannels() override;
    UTIL::Region computeOutputDataRegion() override;
    Imath::Color4<float> computeBackgroundColor() override;
    void makeInputFormatRequests() override;
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override;
    void renderRect(const IMGLIB::Image* output,
                    const std::vector<const IMGLIB::Image*>& inputImages) override;
    ///@}

private:
    /// The channels the chain needs of its input for those asked of it in
    /// this render; bufferChannels receives every mask that passes between
    /// the operators.
    std::size_t requiredChannels(std::size_t* bufferChannels);

    std::vector<InPlaceOpPtr> m_ops;
};

}  // namespace TESSERA
