// The transform tasks: projective, affine and motion blur.
#pragma once

#include <Imath/ImathMatrix.h>

#include <memory>
#include <vector>

#include "imglib/resample.h"
#include "rendertask.h"

namespace TESSERA {
namespace Private {

// Resamples its input through a 3x3 matrix.
class ProjectiveTransformTask : public RenderTask {
public:
    ProjectiveTransformTask(const std::string& name, float time, const Imath::Matrix33<float>& m,
                            IMGLIB::KernelType primary, IMGLIB::KernelType secondary,
                            TaskPtr input);

protected:
    std::string getTypeString() override { return "ProjectiveTransform"; }
    void computeCacheID(CacheIDStream& stream) override;
    uint64_t computeOutputChannels() override;
    UTIL::Region computeOutputDataRegion() override;
    void makeInputFormatRequests() override;
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override;
    void renderRect(const IMGLIB::Image* output,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

    Imath::Matrix33<float> m_matrix;
    Imath::Matrix33<float> m_inverse;
    IMGLIB::KernelType m_primary, m_secondary;
    UTIL::Rect m_inputBounds;
};

// The same geometry, the pixels by a prepared affine function.
class AffineTransformTask : public ProjectiveTransformTask {
public:
    using ProjectiveTransformTask::ProjectiveTransformTask;

protected:
    std::string getTypeString() override { return "AffineTransform"; }
    void preRender() override;
    void renderRect(const IMGLIB::Image* output,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

private:
    std::unique_ptr<IMGLIB::UnaryOperation> m_function;
};

class MotionBlurTransformTask : public RenderTask {
public:
    static constexpr size_t kIndexSetCount = 1024;

    MotionBlurTransformTask(const std::string& name, float time,
                            const std::vector<Imath::Matrix33<float>>& matrices,
                            IMGLIB::KernelType primary, IMGLIB::KernelType secondary,
                            int32_t samplesPerStratum, TaskPtr input);

    // The matrices each output pixel may average: kIndexSetCount sets, one
    // index from each stratum, drawn the same way on every run.
    std::vector<std::vector<size_t>> buildIndexSets() const;

protected:
    std::string getTypeString() override { return "Transform"; }
    void computeCacheID(CacheIDStream& stream) override;
    uint64_t computeOutputChannels() override;
    UTIL::Region computeOutputDataRegion() override;
    void makeInputFormatRequests() override;
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override;
    void preRender() override;
    void renderRect(const IMGLIB::Image* output,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

private:
    std::vector<Imath::Matrix33<float>> m_matrices;
    std::vector<Imath::Matrix33<float>> m_inverses;
    IMGLIB::KernelType m_primary, m_secondary;
    uint64_t m_samplesPerStratum;
    std::unique_ptr<IMGLIB::UnaryOperation> m_function;
    UTIL::Rect m_inputBounds;
};

}  // namespace Private
}  // namespace TESSERA
