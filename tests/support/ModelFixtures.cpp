#include "support/ModelFixtures.h"

#include <gtest/gtest.h>

namespace zubtest {

void expectKeys(const zub::Value& json, const zub::Value& expected, std::initializer_list<const char*> absent) {
    for (const auto& [key, value] : expected.items()) {
        if (!json.contains(key)) {
            ADD_FAILURE() << "no \"" << key << "\" in " << json.dump();
        } else {
            EXPECT_EQ(json.at(key), value) << "under \"" << key << "\" in " << json.dump();
        }
    }
    for (const char* key : absent) EXPECT_FALSE(json.contains(key)) << "\"" << key << "\" in " << json.dump();
}

}  // namespace zubtest
