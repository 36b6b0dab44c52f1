#include "health.h"

#include <array>
#include <cstdio>
#include <utility>

namespace dmond {

namespace {

// Takes the last entry off a list and gives the bytes that the list's text loses: the entry and its
// comma, which the last one of a list does not have. What the system lists first is what was there
// first, as the root filesystem and the fixed interfaces.
std::size_t drop_last(Json& list) {
    const std::size_t len = json_text(list.back()).size() + (list.size() > 1 ? 1 : 0);
    list.erase(list.size() - 1);
    return len;
}

// A list of what the machine has, whose text is the longest. The numbers of the load average are no
// such list: each has its place.
Json* longest_list(Json& health) {
    Json* longest = nullptr;
    std::size_t longest_len = 0;
    for (Json& value : health) {
        if (!value.is_array() || value.empty() || !value.front().is_object())
            continue;
        const std::size_t len = json_text(value).size();
        if (len > longest_len) {
            longest = &value;
            longest_len = len;
        }
    }
    return longest;
}

Json collect(const std::vector<Reading>& readings) {
    Json health = Json::object();
    Json missing = Json::object();
    bool truncated = false;
    for (const Reading& reading : readings) {
        health[reading.name] = reading.value;
        if (!reading.missing.empty())
            missing[reading.name] = reading.missing;
        truncated = truncated || reading.truncated;
    }
    if (!missing.empty())
        health["missing"] = std::move(missing);
    if (truncated)
        health["truncated"] = true;
    return health;
}

} // namespace

void shorten(Reading& reading, std::size_t max_len) {
    if (!reading.value.is_array())
        return;
    for (std::size_t len = json_text(reading.value).size(); len > max_len;) {
        len -= drop_last(reading.value);
        reading.truncated = true;
    }
}

std::string health_text(const std::vector<Reading>& readings, std::size_t max_len) {
    Json health = collect(readings);
    std::string text = json_text(health);
    if (text.size() <= max_len)
        return text;
    health["truncated"] = true;
    for (std::size_t len = json_text(health).size(); len > max_len;) {
        Json* list = longest_list(health);
        if (list == nullptr)
            break;
        len -= drop_last(*list);
    }
    return json_text(health);
}

std::string short_health_text(const std::vector<Reading>& readings) {
    for (const Reading& reading : readings) {
        if (reading.name != "load" || !reading.missing.empty())
            continue;
        std::array<char, 21> text{};
        std::snprintf(text.data(), text.size(), R"({"load":%.2f})",
                      reading.value.at(0).get<double>());
        return text.data();
    }
    return R"({"load":null})";
}

} // namespace dmond
