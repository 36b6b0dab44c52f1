// The load of the soak: uses the library in every way at once, in rounds, and keeps the books.
//
// It reads commands from its standard input: "run MS SEED" is a round of that many milliseconds. It
// says "begun" once it has all its threads. At the end all is quiet, and the books of all rounds so
// far go out as one line of JSON. The end of the input ends it.

#include "labour.h"
#include "traffic.h"

#include "ipmi_sm_low.h"

#include <malloc.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>

namespace {

using namespace std::chrono_literals;
using soak::Json;

// A line's requests at a time are few: what is doubled or late on the way comes before 256 more of
// its context have ended.
constexpr auto kUdpPause = 15ms;
constexpr auto kHdcPause = 5ms;
constexpr auto kLongestEnd = 30s; // of what a round has begun

struct Urls {
    std::string steady, mortal, hdc;
};

class Load {
public:
    explicit Load(const Urls& urls)
        : steady_(urls.steady, kUdpPause), mortal_(urls.mortal, kUdpPause),
          hdc_(urls.hdc, kHdcPause), churn_(urls.steady) {}

    // Gives the books of all rounds so far.
    Json run(std::chrono::milliseconds time, std::uint64_t seed) {
        for (soak::Ledger* ledger : ledgers())
            ledger->begin_round();
        {
            soak::Round round(seed);
            begin(round);
            std::cout << "begun" << std::endl;
            soak::pause_for(time);
        }
        const bool is_quiet = wait([this] { return has_ended(); });
        Json report = books();
        report["quiet"] = is_quiet && binary_.is_free() && mutex_.is_free();
        // What is measured now is not to hold pages that are free: how many these are is chance.
        malloc_trim(0);
        return report;
    }

private:
    std::array<soak::Ledger*, 5> ledgers() {
        return {&steady_.ledger(), &mortal_.ledger(), &hdc_.ledger(), &self_.ledger(),
                &churn_.ledger()};
    }

    void begin(soak::Round& round) {
        steady_.begin(round, 2);
        mortal_.begin(round, 2);
        hdc_.begin(round, 2);
        self_.begin(round, 2);
        churn_.begin(round);
        churn_.begin(round);
        tasks_.begin(round);
        binary_.begin(round, 3);
        mutex_.begin(round, 3);
        queues_.begin(round);
    }

    bool has_ended() {
        for (const soak::Ledger* ledger : ledgers())
            if (!ledger->all_closed())
                return false;
        return tasks_.have_ended();
    }

    static bool wait(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + kLongestEnd;
        while (!condition() && std::chrono::steady_clock::now() < end)
            soak::pause_for(10ms);
        return condition();
    }

    Json books() {
        return {{"requests",
                 {{"load: UDP, steady daemon", steady_.ledger().report()},
                  {"load: UDP, mortal daemon", mortal_.ledger().report()},
                  {"load: HDC", hdc_.ledger().report()},
                  {"load: self-loop", self_.ledger().report()},
                  {"load: UDP, coming and going", churn_.ledger().report()}}},
                {"churn", churn_.report()},
                {"tasks", tasks_.report()},
                {"binary", binary_.report()},
                {"mutex", mutex_.report()},
                {"queues", queues_.report()}};
    }

    soak::Line steady_;
    soak::Line mortal_;
    soak::Line hdc_;
    soak::SelfLoop self_;
    soak::Churn churn_;
    soak::Tasks tasks_;
    soak::Lock binary_{THREAD_TIMED_BINARY};
    soak::Lock mutex_{THREAD_TIMED_MUTEX};
    soak::Queues queues_;
};

int run(const Urls& urls) {
    Load load(urls);
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string verb;
        std::uint64_t ms = 0;
        std::uint64_t seed = 0;
        if (!(words >> verb >> ms >> seed) || verb != "run")
            throw std::runtime_error("no such command: " + line);
        std::cout << load.run(std::chrono::milliseconds(ms), seed).dump() << std::endl;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: soak_load STEADY_URL MORTAL_URL HDC_URL\n", stderr);
        return 2;
    }
    try {
        return run({argv[1], argv[2], argv[3]});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "soak_load: %s\n", error.what());
        return 1;
    }
}
