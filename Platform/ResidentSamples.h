// A fixed block of zeroed float samples, in huge pages where the kernel
// grants them, made resident when the block is created (madvise populate).
// Filling a fresh std::vector takes one page fault per 4 KiB instead: for
// the diagnostic history's two 12-second rings that is some 2,300 faults,
// tens of milliseconds before the first sound on a virtual machine, where
// each fault is a trip through the hypervisor.
#pragma once

#include <cstddef>

namespace sorva {

class ResidentSamples {
public:
    ResidentSamples() = default;
    // count zeroed samples; throws std::bad_alloc when the memory cannot be had.
    explicit ResidentSamples(size_t count);
    ~ResidentSamples();
    ResidentSamples(ResidentSamples&& other) noexcept;
    ResidentSamples& operator=(ResidentSamples&& other) noexcept;
    ResidentSamples(const ResidentSamples&) = delete;
    ResidentSamples& operator=(const ResidentSamples&) = delete;

    float* data() noexcept { return samples; }
    const float* data() const noexcept { return samples; }
    size_t size() const noexcept { return count; }

private:
    void release() noexcept;

    float* samples = nullptr;
    size_t count = 0;
    size_t bytes = 0; // mapped, whole huge pages
};

} // namespace sorva
