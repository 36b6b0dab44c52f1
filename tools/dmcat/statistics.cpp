#include "statistics.h"

#include <algorithm>
#include <bit>

namespace dmcat {

namespace {

// A power of two that is that of 128 or above is divided into 128 buckets; below, each microsecond
// has one.
constexpr unsigned kBits = 7;
constexpr std::uint64_t kSteps = std::uint64_t{1} << kBits;
constexpr std::size_t kBuckets = (64 - kBits + 1) * kSteps;

std::size_t bucket_of(std::uint64_t time) {
    if (time < kSteps)
        return time;
    const auto shift = static_cast<unsigned>(std::bit_width(time)) - kBits - 1;
    return (std::size_t{shift} << kBits) + (time >> shift);
}

// The middle of a bucket.
std::uint64_t time_of(std::size_t bucket) {
    if (bucket < 2 * kSteps)
        return bucket;
    const std::size_t shift = (bucket >> kBits) - 1;
    return ((bucket - (shift << kBits)) << shift) + ((std::uint64_t{1} << shift) >> 1);
}

} // namespace

void Statistics::add(Time time) {
    const Time counted = std::max(time, Time::zero());
    buckets_.resize(kBuckets);
    ++buckets_[bucket_of(static_cast<std::uint64_t>(counted.count()))];
    ++count_;
    min_ = std::min(min_, counted);
    max_ = std::max(max_, counted);
}

Statistics::Summary Statistics::summary() const {
    return {min_, percentile(50), percentile(99), max_};
}

Statistics::Time Statistics::percentile(std::uint64_t percent) const {
    const std::uint64_t rank = (count_ * percent + 99) / 100;
    std::size_t bucket = 0;
    for (std::uint64_t passed = buckets_[0]; passed < rank; passed += buckets_[bucket])
        ++bucket;
    return std::clamp(Time(time_of(bucket)), min_, max_);
}

} // namespace dmcat
