#pragma once

// Finds the word that was probably meant.
// Stands on: nothing else of ours.

#include <span>
#include <string>
#include <string_view>

// The candidate that takes the fewest letters added, left out, changed or exchanged with their
// neighbour; if that is more than a third of the word's letters (but one is always allowed), the
// first that ends with the word behind a "_", as "display_hflip" does for "hflip". Else empty.
std::string near_word(std::string_view word, std::span<const std::string> candidates);

// ", did you mean "hflip"?", or empty if nothing is near.
std::string near_hint(std::string_view word, std::span<const std::string> candidates);
