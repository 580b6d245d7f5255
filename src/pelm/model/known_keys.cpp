#include <pelm/model/known_keys.hpp>

#include <algorithm>
#include <numeric>
#include <vector>

namespace pelm {
namespace {

// Letters to insert, delete or change to turn one word into the other.
std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const auto above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

}  // namespace

std::optional<std::string> unknownKeyProblem(const JSON& object, std::initializer_list<const char*> known) {
    if (!object.is_object()) return std::nullopt;
    for (const auto& item : object.items()) {
        const std::string& key = item.key();
        if (std::any_of(known.begin(), known.end(), [&](const char* k) { return key == k; })) continue;
        std::string problem = key + ": unknown key";
        const char* closest = nullptr;
        std::size_t best = 3;  // further than two edits is no typo
        for (const char* candidate : known) {
            if (const auto distance = editDistance(key, candidate); distance < best) {
                best = distance;
                closest = candidate;
            }
        }
        if (closest != nullptr) problem += std::string("; did you mean ") + closest + "?";
        return problem;
    }
    return std::nullopt;
}

}  // namespace pelm
