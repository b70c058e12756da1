// The line console of kv3000-sim: get, set, stats, help, quit.
#ifndef KV3000_SIM_CONSOLE_H
#define KV3000_SIM_CONSOLE_H

#include "sim_faults.h"
#include "sim_memory.h"

#include <functional>
#include <string>

namespace kvsim {

class Console {
public:
    // stats is asked by the "stats" command; it may be empty.
    Console(Memory& mem, std::function<Stats()> stats);

    // Runs one command line and returns what to print, each line ending in
    // '\n' (empty for a blank line). Mistakes give one line "error: ...".
    // quit (may be null) becomes true on "quit" or "exit".
    std::string execute(const std::string& line, bool* quit = nullptr);

    static const char* help();

private:
    Memory& mem_;
    std::function<Stats()> stats_;
};

}  // namespace kvsim

#endif
