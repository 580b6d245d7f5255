#pragma once

#include <gtest/gtest.h>
#include <string>

#ifdef PELM_TEST_POSTGRESQL
#include "support/postgresql_database.hpp"
#endif

namespace pelm::testing {

/// A database of its own for one test: an empty PostgreSQL database in the server suite's PostgreSQL build,
/// otherwise SQLite in memory (or `sqliteFile` when one is given).
inline std::string testDatabase([[maybe_unused]] const std::string& sqliteFile = ":memory:") {
#ifndef PELM_TEST_POSTGRESQL
    return sqliteFile;
#else
    return newPostgreSQLDatabase();
#endif
}

}  // namespace pelm::testing
