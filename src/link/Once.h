// A one-shot latch: of all the callers of claim(), from any threads, exactly
// one gets true. Used where two racers may each resume one waiter.
#pragma once
#include <mutex>

namespace studiolink {

class Once {
public:
    bool claim() {
        std::lock_guard guard(lock_);
        bool first = !done_;
        done_ = true;
        return first;
    }

private:
    std::mutex lock_;
    bool done_ = false;
};

}  // namespace studiolink
