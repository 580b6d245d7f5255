#pragma once

#include <libpq-fe.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

namespace pelm::testing {

/// The server started for the tests (tests/support/postgresql.sh), by the address of its maintenance
/// database.
inline std::string postgresServer() {
    const char* folder = std::getenv("PELM_TEST_POSTGRESQL");
    if (folder == nullptr)
        throw std::runtime_error("PELM_TEST_POSTGRESQL names no folder: run this through ctest");
    std::ifstream file(std::string(folder) + "/url");
    std::string url;
    if (!std::getline(file, url))
        throw std::runtime_error(std::string("no PostgreSQL server is running in ") + folder);
    return url;
}

/// An empty PostgreSQL database of its own on the server the tests started.
inline std::string newPostgreSQLDatabase() {
    static std::atomic<int> made{0};
    const auto name = "test_" + std::to_string(::getpid()) + "_" + std::to_string(made++);
    const auto server = postgresServer();
    auto* connection = PQconnectdb(server.c_str());
    auto* result = PQexec(connection, ("CREATE DATABASE " + name).c_str());
    const bool created = PQresultStatus(result) == PGRES_COMMAND_OK;
    const std::string message = PQerrorMessage(connection);
    PQclear(result);
    PQfinish(connection);
    if (!created) throw std::runtime_error("cannot make a test database: " + message);
    const auto path = server.find("/postgres?");
    return server.substr(0, path) + "/" + name + server.substr(path + std::string("/postgres").size());
}

}  // namespace pelm::testing
