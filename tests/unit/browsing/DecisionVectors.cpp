#include "tests/unit/browsing/DecisionVectors.h"

#include <fstream>

namespace Sentrel::browsing {

nlohmann::json decisionVectors(const std::string& file, const std::string& table) {
    std::ifstream text(SENTREL_SOURCE_DIR "/tests/data/decisions/" + file);
    return nlohmann::json::parse(text).at(table);
}

} // namespace Sentrel::browsing
