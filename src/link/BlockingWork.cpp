#include "link/BlockingWork.h"

#include <chrono>
#include <thread>

namespace studiolink::blocking {

std::atomic<int>& pending() {
    static std::atomic<int> count{0};
    return count;
}

void settle() {
    while (pending().load() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

boost::asio::thread_pool& workers() {
    static auto* pool = new boost::asio::thread_pool(2);
    return *pool;
}

}  // namespace studiolink::blocking
