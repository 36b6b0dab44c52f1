// Request and reply of nng. The socket matches the answers and has a timer for each request; there
// is a context for each one that is under way, on both sides, and its callback sends the next.
#pragma once

#include "support/nng.h"
#include "support/payload.h"
#include "support/signal.h"
#include "support/system.h"
#include "support/window.h"

#include <mutex>
#include <vector>

namespace bench {

class NngExchange : public System {
public:
    NngExchange(int depth, const std::string& endpoint) : window_(depth) {
        client_.connect(server_.listen(endpoint));
        for (int i = 0; i < depth; ++i) {
            services_.push_back(std::make_unique<Service>(server_));
            requests_.push_back(std::make_unique<Request>(*this));
        }
    }

    void run(int operations) override {
        {
            const std::scoped_lock lock(mutex_);
            window_.begin(operations);
        }
        for (const auto& request : requests_)
            request->begin();
        done_.await();
    }

private:
    class Service {
    public:
        explicit Service(const NngSocket& socket) : context_(socket, [this] { next(); }) {
            context_.receive();
        }

    private:
        void next() {
            if (nng_msg* message = context_.take_received())
                context_.send(message);
            else if (context_.is_open())
                context_.receive();
        }
        NngContext context_;
    };

    class Request {
    public:
        explicit Request(NngExchange& of) : of_(of), context_(of.client_, [this] { next(); }) {}

        void begin() {
            context_.await_idle();
            send(of_.take_number());
        }

    private:
        // @param number 0 when there is nothing to send.
        void send(uint64_t number) {
            if (number == 0)
                return;
            number_ = number;
            const Payload payload = payload_of(number);
            context_.send(make_message(payload.data(), payload.size()));
        }

        void next() {
            nng_msg* answer = context_.take_received();
            if (answer == nullptr) {
                if (context_.is_open())
                    context_.receive();
                return;
            }
            require(is_payload_of(number_, nng_msg_body(answer), nng_msg_len(answer)),
                    "a wrong answer");
            nng_msg_free(answer);
            send(of_.take_number_after_answer());
        }

        NngExchange& of_;
        uint64_t number_ = 0;
        NngContext context_;
    };

    // @return 0 when nothing more is to be sent now.
    uint64_t take_number() {
        const std::scoped_lock lock(mutex_); // callbacks run on several threads
        return window_.opens() ? ++sent_ : 0;
    }
    // Behind the last answer the next batch may begin at once: nothing of it is taken here.
    uint64_t take_number_after_answer() {
        const std::scoped_lock lock(mutex_);
        if (!window_.answered())
            return window_.opens() ? ++sent_ : 0;
        done_.give();
        return 0;
    }

    std::mutex mutex_;
    Window window_;
    uint64_t sent_ = 0;
    Signal done_;
    NngSocket server_{nng_rep0_open};
    NngSocket client_{nng_req0_open};
    std::vector<std::unique_ptr<Service>> services_;
    std::vector<std::unique_ptr<Request>> requests_;
};

} // namespace bench
