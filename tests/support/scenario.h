// Tests as data: scenarios, each a line "== title" and steps, one a line: "verb args", "verb args =
// output" (this output, spaces aside) or "verb args ~ text" (an output containing it); "#" starts a
// comment. Each starts from a driver initialised with "1#0#0#3#10" whose handshake the simulator's
// core answered, a fresh controller memory and no change reports. scenario.cpp lists the verbs and
// makes a test of each scenario in the *.txt files of the directory KV_SCENARIOS names.
#ifndef KV3000_TEST_SCENARIO_H
#define KV3000_TEST_SCENARIO_H

#include "sim_memory.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

// A verb gets the words of its step, its own name first, and returns the output.
using Words = std::vector<std::string>;
using Verb = std::function<std::string(const Words&)>;
void addVerb(const std::string& name, Verb verb);

// For tests in C++: the runtime as a scenario starts, its controller and recipe buffer, one step's
// output, a text's words, bytes from words as steps write them, and as outputs print them.
void resetRuntime();
kvsim::Memory& controller();
unsigned short* recipeBuffer();
std::string perform(const std::string& step);
Words split(const std::string& text);
std::vector<unsigned char> bytesOf(const Words& w, size_t from = 0);
std::string hexOf(const unsigned char* bytes, long long count);

#endif
