// For people who mistype: the known word that is nearest to the one given.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

inline constexpr size_t kLongestWord = 32;

/// @return letters to insert, drop, replace or swap with their neighbour; kLongestWord for longer words.
[[nodiscard]] constexpr size_t word_distance(std::string_view a, std::string_view b) {
    if (a.size() >= kLongestWord || b.size() >= kLongestWord) {
        return kLongestWord;
    }
    std::array<std::array<size_t, kLongestWord>, kLongestWord> cost{};
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            const size_t replaced = cost[i - 1][j - 1] + (a[i - 1] != b[j - 1] ? 1 : 0);
            cost[i][j] = std::min({replaced, cost[i - 1][j] + 1, cost[i][j - 1] + 1});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
            }
        }
    }
    return cost[a.size()][b.size()];
}

/// @param known  a range of texts.
/// @return the first of the nearest; empty when none is near: more than two letters off, or half the word.
template <class Words>
[[nodiscard]] constexpr std::string_view nearest_word(std::string_view given, const Words &known) {
    std::string_view best;
    size_t least = std::min<size_t>(2, given.size() / 2) + 1;
    for (const std::string_view word : known) {
        const size_t distance = word_distance(given, word);
        if (distance < least) {
            least = distance;
            best = word;
        }
    }
    return best;
}

static_assert(nearest_word("dmup", std::array{"get", "dump"}) == "dump");
static_assert(nearest_word("xy", std::array{"get", "dump"}).empty());
