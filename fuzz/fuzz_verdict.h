// What a fuzz target's last input came to, in a few words: accepted or
// refused, packets cut, bytes dropped. Each target defines FuzzVerdict();
// the corpus replay compares it with the verdict listed for the input, so
// that a saved input keeps its meaning and not only its safety. libFuzzer
// never calls it.
#pragma once

#include <string>

std::string FuzzVerdict();
