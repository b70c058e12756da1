#include "link.h"

#include <thread>

namespace kvhost {

Micros SteadyClock::now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void SteadyClock::sleepFor(Micros us) {
    if (us > 0) std::this_thread::sleep_for(std::chrono::microseconds(us));
}

}  // namespace kvhost
