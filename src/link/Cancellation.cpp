#include "link/Cancellation.h"

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>

namespace cancellation {

void raise() { throw boost::system::system_error(boost::asio::error::operation_aborted); }

bool is(const std::exception& error) {
    auto* system = dynamic_cast<const boost::system::system_error*>(&error);
    return system && system->code() == boost::asio::error::operation_aborted;
}

bool is(const std::exception_ptr& error) {
    if (!error) return false;
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return is(e);
    } catch (...) {
        return false;
    }
}

}  // namespace cancellation
