#include "link/BlockingWork.h"

namespace blocking {

boost::asio::thread_pool& workers() {
    static auto* pool = new boost::asio::thread_pool(1);
    return *pool;
}

}  // namespace blocking
