#include "sampler.h"

#include "dmond_protocol.h"
#include "health.h"
#include "ipmi_v_task.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace dmond {

namespace {

constexpr std::chrono::seconds kPatience{1};
constexpr std::uint64_t kLookMs = 10;

struct Part {
    const char* name;
    ReadingTask::Take take;
};

// In the order in which they are answered.
constexpr auto kParts = std::to_array<Part>({{"load", read_load},
                                             {"memory", read_memory},
                                             {"filesystems", read_filesystems},
                                             {"temperatures", read_temperatures},
                                             {"fans", read_fans},
                                             {"network", read_network}});

} // namespace

Sampler::Sampler() {
    if (task_task_info_init() != 0)
        throw std::runtime_error("cannot create the task table for the readings");
    for (const Part& part : kParts)
        tasks_.push_back(std::make_unique<ReadingTask>(part.name, part.take));
}

Sampler::~Sampler() {
    stop();
}

void Sampler::order() const {
    for (const auto& task : tasks_)
        task->order();
}

std::string Sampler::newest(std::size_t max_len) const {
    await_first();
    std::vector<Reading> readings;
    for (const auto& task : tasks_)
        readings.push_back(task->newest());
    std::string text = health_text(readings, kMaxBodyLen);
    return text.size() <= max_len ? text : short_health_text(readings);
}

void Sampler::await_first() const {
    const auto is_awaited = [](const auto& task) { return task->is_awaited(); };
    while (Clock::now() - begun_ < kPatience &&
           std::any_of(tasks_.begin(), tasks_.end(), is_awaited))
        vos_task_delay(kLookMs);
}

bool Sampler::restart() {
    bool all = true;
    for (const auto& task : tasks_)
        all = task->restart() && all;
    return all;
}

void Sampler::stop() {
    for (const auto& task : tasks_)
        task->stop();
}

} // namespace dmond
