// An io_context run by one background thread, with a strand standing in for
// the bridge's: what a benchmark needs to drive the link's coroutines from
// plain code. Stops and joins on destruction.
#pragma once
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/strand.hpp>
#include <thread>

namespace bench {

struct Io {
    boost::asio::io_context io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{io.get_executor()};
    boost::asio::strand<boost::asio::io_context::executor_type> strand{boost::asio::make_strand(io)};
    std::thread thread{[this] { io.run(); }};
    ~Io() {
        work.reset();
        io.stop();
        thread.join();
    }
};

}  // namespace bench
