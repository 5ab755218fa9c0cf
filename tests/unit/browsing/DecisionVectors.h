// The tables of tests/data/decisions. Other programs that decide on pages read the same files.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace Sentrel::browsing {

/// The rows of a table, by its file's and its own name. @throws std::exception when there is none.
nlohmann::json decisionVectors(const std::string& file, const std::string& table);

} // namespace Sentrel::browsing
