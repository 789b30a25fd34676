// SPDX-License-Identifier: GPL-3.0-or-later
#include "PrivateObjects.h"

#include "platform/NamedObjects.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

namespace larimo::test {

std::string PrivateObjectNamespace()
{
    return "t" + std::to_string(getpid());
}

void UsePrivateObjectNamespace()
{
    setenv("LARIMO_OBJECT_NAMESPACE", PrivateObjectNamespace().c_str(), 1);
}

void RemovePrivateObjectNamespace()
{
    RemoveNamedObjectNamespace(PrivateObjectNamespace());
}

namespace {

class PrivateObjectsEnvironment final : public ::testing::Environment {
public:
    void SetUp() override { UsePrivateObjectNamespace(); }
    void TearDown() override { RemovePrivateObjectNamespace(); }
};

[[maybe_unused]] ::testing::Environment* const kPrivateObjects =
    ::testing::AddGlobalTestEnvironment(new PrivateObjectsEnvironment);

} // namespace
} // namespace larimo::test
