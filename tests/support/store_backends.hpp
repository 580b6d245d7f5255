#pragma once

// The databases the content store runs on, for the one store suite they all pass
// (tests/server/content_store_test.cpp); a new backend joins kStoreBackends.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

#include "support/postgresql_database.hpp"

namespace pelm::testing {

/// A database the content store runs on: its name, why it cannot run here (none when it can) and a fresh
/// database of its own for one test.
struct StoreBackend {
    const char* name;
    std::optional<std::string> (*unavailable)();
    std::string (*freshDatabase)(const std::string& test);
};

/// Prints a backend by its name, in test names and messages.
inline void PrintTo(const StoreBackend& backend, std::ostream* out) {
    *out << backend.name;
}

/// SQLite: a file of its own in the test's temporary folder, so that two stores can share it.
inline const StoreBackend kSQLite{"SQLite", [] { return std::optional<std::string>(); },
                                  [](const std::string& test) {
                                      auto name = "store-" + test + "-" + std::to_string(::getpid()) + ".db";
                                      std::replace(name.begin(), name.end(), '/',
                                                   '-');  // a parameterised test's name has one
                                      const auto file = std::filesystem::path(::testing::TempDir()) / name;
                                      std::filesystem::remove(file);
                                      return file.string();
                                  }};

/// PostgreSQL: an empty database of its own on the server ctest starts for the tests labelled postgresql.
inline const StoreBackend kPostgreSQL{
    "PostgreSQL",
    [] {
        if (std::getenv("PELM_TEST_POSTGRESQL") != nullptr) return std::optional<std::string>();
        return std::optional<std::string>(
            "no PostgreSQL server was started for this run (`ctest -R PostgreSQL` starts one)");
    },
    [](const std::string&) { return newPostgreSQLDatabase(); }};

/// Every backend the content store runs on.
inline const StoreBackend kStoreBackends[] = {kSQLite, kPostgreSQL};

}  // namespace pelm::testing
