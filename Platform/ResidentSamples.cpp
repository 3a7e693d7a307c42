#include "Platform/ResidentSamples.h"

#include <new>
#include <utility>

#include <sys/mman.h>

namespace sorva {

ResidentSamples::ResidentSamples(size_t count)
{
    if (count == 0)
        return;
    if (count > static_cast<size_t>(-1) / sizeof(float))
        throw std::bad_alloc();
    // Anonymous pages read as zero; populating a private writable mapping
    // allocates them all now.
    void* memory = ::mmap(nullptr, count * sizeof(float), PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    samples = static_cast<float*>(memory);
    this->count = count;
}

ResidentSamples::~ResidentSamples() { release(); }

ResidentSamples::ResidentSamples(ResidentSamples&& other) noexcept
    : samples(std::exchange(other.samples, nullptr))
    , count(std::exchange(other.count, 0))
{
}

ResidentSamples& ResidentSamples::operator=(ResidentSamples&& other) noexcept
{
    if (this != &other) {
        release();
        samples = std::exchange(other.samples, nullptr);
        count = std::exchange(other.count, 0);
    }
    return *this;
}

void ResidentSamples::release() noexcept
{
    if (samples)
        ::munmap(samples, count * sizeof(float));
    samples = nullptr;
    count = 0;
}

} // namespace sorva
