// Checks on an event's JSON (or any JSON object) by its keys: the values a test
// expects under some keys, and keys that must be missing. One line per event in
// the model tests instead of one per key.
//
//   zubtest::expectKeys(jsonOf(*page), {{"et", 1}, {"pi", "A"}, {"du", 7}}, {"rf"});
#pragma once

#include <ZUBCocoa/ZUBValue.h>

#include <initializer_list>

namespace zubtest {

/// Fails (without stopping the test) for each key of `expected` that `json` lacks
/// or holds with another value, and for each key of `absent` that it holds.
void expectKeys(const zub::Value& json, const zub::Value& expected, std::initializer_list<const char*> absent = {});

}  // namespace zubtest
