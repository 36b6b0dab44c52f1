#include "hdc/bare.h"
#include "hdc/library.h"

int main(int argc, char** argv) {
    constexpr const char* floor = "bare, the same threads, sockets and pipes";
    constexpr const char* library = "library";
    hdc::add<hdc::Bare>(floor);
    hdc::add<hdc::Library>(library);
    bench::add_peers();
    const std::string work = hdc::kExchange;
    return bench::run(argc, argv,
                      {{work + ": library against the same threads and pipes", work + "/" + library,
                        work + "/" + floor, 1.25}});
}
