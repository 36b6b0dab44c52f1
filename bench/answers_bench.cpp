// What an answer costs, by the number of outstanding requests and the order in which they are
// answered, beside a bare hash map from identity to request.
//
// Both sides do the same: at each turn of a loop, the poll thread of which waits for three
// descriptors of which one is ready, an answer for one outstanding request is received into a
// zeroed buffer of 4 KiB and matched. The request ends, its callback runs and sends the next, so
// that the number outstanding stays; an answer that nobody waits for is dropped. A cost is one such
// turn. On the hash map's side a send is an insertion; the library's is dm_send_req() on an
// interface that puts nothing on any wire, a timer armed and disarmed with each request included.
#include "dm_msg_intf.h"

#include "support/bare_loop.h"
#include "support/interface.h"
#include "support/measure.h"
#include "support/runner.h"
#include "support/turns.h"

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <unordered_map>

namespace {

constexpr int64_t kAnswers = 500; // of one batch
constexpr size_t kPayload = 64;
constexpr size_t kOutstanding[] = {1, 100, 10000, 100000};

enum class Order { sent, reversed, random, unknown };

// The outstanding requests in the order in which they are answered: those that are there, then all
// that were sent meanwhile, and so on.
class Outstanding {
public:
    void add(uint64_t id) { later_.push_back({++sent_, id}); }

    void order_by(Order order) {
        order_ = order;
        later_.insert(later_.end(), now_.begin(), now_.end());
        std::ranges::sort(later_, {}, &Request::number);
        begin_round();
    }

    // The identity that the next answer has.
    uint64_t next() {
        if (order_ == Order::unknown)
            return kNobodys | now_[++dropped_ % now_.size()].id;
        if (now_.empty())
            begin_round();
        const uint64_t id = now_.back().id;
        now_.pop_back();
        return id;
    }

private:
    struct Request {
        uint64_t number;
        uint64_t id;
    };
    static constexpr uint64_t kNobodys = uint64_t{1} << 63; // no address, and no count, has it

    void begin_round() {
        now_ = std::exchange(later_, {});
        if (order_ == Order::sent)
            std::ranges::reverse(now_);
        else if (order_ == Order::random)
            std::ranges::shuffle(now_, random_);
    }

    Order order_ = Order::sent;
    std::vector<Request> now_; // answered from the back
    std::vector<Request> later_;
    uint64_t sent_ = 0;
    size_t dropped_ = 0;
    std::mt19937 random_{1};
};

// A side has its requests outstanding from its making on, and keeps them for all orders and
// repetitions.
class Library {
public:
    explicit Library(size_t outstanding)
        : intf_(context_.add_interface(turns_.fd(), this, receive, keep)) {
        for (size_t i = 0; i < outstanding; ++i)
            send(intf_);
    }

    void order_by(Order order) { outstanding_.order_by(order); }
    void answer(int64_t count) { turns_.run(count); }

private:
    static int receive(DM_INTF_ST* intf, int32_t /*fd*/, int16_t /*events*/, DM_MSG_ST* msg) {
        auto& self = bench::owner_of<Library>(intf);
        if (!self.turns_.begin())
            return -1;
        msg->type = DM_MSG_RSP;
        msg->req_id = self.outstanding_.next();
        return 0;
    }
    static int keep(DM_INTF_ST* intf, uint32_t /*type*/, DM_ADDR_ST* /*addr*/,
                    uint32_t /*addr_len*/, DM_DATA_ST* /*data*/, uint64_t req_id) {
        bench::owner_of<Library>(intf).outstanding_.add(req_id);
        return 0;
    }
    static void send(DM_INTF_ST* intf) {
        bench::send_request(intf, [](DM_INTF_ST* self, DM_MSG_ST*, void*, int32_t) {
            send(self);
            return 0;
        });
    }

    Outstanding outstanding_;
    bench::Turns turns_;
    bench::Context context_;
    DM_INTF_ST* intf_;
};

class HashMap {
public:
    explicit HashMap(size_t outstanding) {
        for (size_t i = 0; i < outstanding; ++i)
            send(*this);
    }

    void order_by(Order order) { outstanding_.order_by(order); }
    void answer(int64_t count) { turns_.run(count); }

private:
    struct Request {
        void (*on_answer)(HashMap& self);
        std::array<char, kPayload> payload;
    };

    void receive() {
        if (!turns_.begin())
            return;
        std::array<char, DM_MAX_DATA_LEN> buffer{};
        benchmark::DoNotOptimize(buffer);
        const auto found = requests_.find(outstanding_.next());
        if (found == requests_.end())
            return;
        const Request request = found->second;
        requests_.erase(found);
        request.on_answer(*this);
    }
    static void send(HashMap& self) {
        self.requests_.emplace(++self.sent_, Request{send, {}});
        self.outstanding_.add(self.sent_);
    }

    Outstanding outstanding_;
    std::unordered_map<uint64_t, Request> requests_;
    uint64_t sent_ = 0;
    bench::Turns turns_;
    bench::Turns unused_; // the third descriptor
    bench::BareLoop loop_{{unused_.fd(), turns_.fd()}, [this](int /*fd*/) { receive(); }};
};

template<class Side>
void answer(benchmark::State& state, size_t outstanding, Order order) {
    static std::map<size_t, Side> sides;
    Side& side = sides.try_emplace(outstanding, outstanding).first->second;
    side.order_by(order);
    bench::measure(state, kAnswers, [&] { side.answer(kAnswers); });
}

std::string work(size_t outstanding, Order order) {
    static constexpr const char* texts[] = {"in order", "in reverse", "at random",
                                            "for none of them"};
    return "answer " + std::string(texts[static_cast<size_t>(order)]) +
           ", outstanding: " + std::to_string(outstanding);
}

} // namespace

// The cost of a request in order, its send and its answer, shows what an index of requests and
// timers costs those that do not need it.
int main(int argc, char** argv) {
    constexpr const char* floor = "hash map on a bare loop";
    const std::string one_in_order = work(1, Order::sent) + "/library";
    std::vector<bench::Target> targets;
    for (const Order order : {Order::sent, Order::reversed, Order::random, Order::unknown})
        for (const size_t outstanding : kOutstanding) {
            const std::string name = work(outstanding, order);
            const auto add = [&](const char* system, auto function) {
                bench::add(name, system,
                           [=](benchmark::State& state) { function(state, outstanding, order); });
            };
            add(floor, answer<HashMap>);
            add("library", answer<Library>);
            targets.push_back({name + ": library against the hash map", name + "/library",
                               name + "/" + floor, 2.5});
            targets.push_back({name + ": library against the only one that is outstanding",
                               name + "/library", one_in_order, 1.5});
        }
    return bench::run(argc, argv, targets);
}
