// Tests as data: scenarios, each a line "== title" and steps, one a line: "verb args", "verb args =
// output" (this output, spaces aside) or "verb args ~ text" (an output containing it); "#" starts a
// comment. Each starts from a driver initialised with "1#0#0#3#10" whose handshake the simulator's
// core answered, a fresh controller memory and no change reports. scenario.cpp lists the verbs.
#ifndef KV3000_TEST_SCENARIO_H
#define KV3000_TEST_SCENARIO_H

#include "sim_memory.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

struct Scenario {
    std::string where, name;  // file:line of the title; file stem and title as one identifier
    std::vector<std::pair<int, std::string>> steps;
};
inline void PrintTo(const Scenario& s, std::ostream* os) {
    *os << s.where;
}

// Every scenario of the *.txt files in dir, files in name order.
std::vector<Scenario> loadScenarios(const std::string& dir);

// A verb gets the words of its step, its own name first, and returns the output.
using Words = std::vector<std::string>;
using Verb = std::function<std::string(const Words&)>;
void addVerb(const std::string& name, Verb verb);
void runScenario(const Scenario& s);

// For tests in C++: the runtime as a scenario starts, its controller and recipe buffer, one step's
// output, a text's words, bytes from words as steps write them, and as outputs print them.
void resetRuntime();
kvsim::Memory& controller();
unsigned short* recipeBuffer();
std::string perform(const std::string& step);
Words split(const std::string& text);
std::vector<unsigned char> bytesOf(const Words& w, size_t from = 0);
std::string hexOf(const unsigned char* bytes, long long count);

class ScenarioTest : public ::testing::TestWithParam<Scenario> {};

// One test per scenario of the files in dir.
#define KV_SCENARIO_TESTS(dir)                                                             \
    TEST_P(ScenarioTest, Runs) {                                                           \
        runScenario(GetParam());                                                           \
    }                                                                                      \
    INSTANTIATE_TEST_SUITE_P(Files, ScenarioTest, ::testing::ValuesIn(loadScenarios(dir)), \
                             [](const auto& info) { return info.param.name; })

#endif
