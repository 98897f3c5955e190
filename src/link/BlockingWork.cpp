#include "link/BlockingWork.h"

namespace blocking {

boost::asio::thread_pool& workers() {
    static auto* pool = new boost::asio::thread_pool(2);
    return *pool;
}

}  // namespace blocking
