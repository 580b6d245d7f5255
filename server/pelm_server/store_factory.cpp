#include "pelm_server/store_factory.hpp"

#include "pelm_server/postgres_store.hpp"
#include "pelm_server/sqlite_store.hpp"

namespace pelm::server {

bool isPostgresAddress(const std::string& database) {
    return database.rfind("postgresql://", 0) == 0 || database.rfind("postgres://", 0) == 0;
}

std::unique_ptr<ContentStore> openContentStore(const std::string& database, ContentStore::Open open,
                                               std::chrono::milliseconds cacheLifetime) {
    if (isPostgresAddress(database)) return std::make_unique<PostgresStore>(database, cacheLifetime);
    return std::make_unique<SqliteStore>(database, open, cacheLifetime);
}

}  // namespace pelm::server
