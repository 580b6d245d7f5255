#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "pelm_server/content_store.hpp"

namespace pelm::server {

/// True for a PostgreSQL connection URI ("postgresql://…" or "postgres://…").
bool isPostgresAddress(const std::string& database);

/// PostgreSQL for a connection URI (an empty one, "postgresql://", takes everything from PGHOST, PGSERVICE
/// and the other libpq variables), otherwise a SQLite file (":memory:" keeps everything in memory). Throws
/// std::runtime_error when the database cannot be opened or, with ExistingOnly, a file does not exist
/// (nothing is created then).
std::unique_ptr<ContentStore> openContentStore(
    const std::string& database, ContentStore::Open open = ContentStore::Open::CreateIfMissing,
    std::chrono::milliseconds cacheLifetime = ContentStore::kDefaultCacheLifetime);

}  // namespace pelm::server
