// The transfer-fault names a capture accepts, with and without a count.
#include <gtest/gtest.h>

#include "rig/rig.h"

namespace ornixrig {
namespace {

TEST(ParseTransferFault, NamesAndCounts) {
    using K = TransferFaultKind;
    struct Case {
        const char* text;
        std::optional<std::pair<K, uint32_t>> expected;
    } cases[] = {
        {"short", {{K::Short, 1}}},
        {"babble:3", {{K::Babble, 3}}},
        {"xact:2", {{K::TransactionError, 2}}},
        {"stall", {{K::Stall, 1}}},
        {"split:10", {{K::Split, 10}}},
        {"out-of-order", {{K::OutOfOrder, 1}}},
        {"sync:1", {{K::Synchronous, 1}}},
        {"babble:0", std::nullopt},
        {"babble:", std::nullopt},
        {"babble:3x", std::nullopt},
        {"Babble", std::nullopt},
        {"", std::nullopt},
        {"babble:-1", std::nullopt},
    };
    for (const Case& c : cases) {
        const auto fault = ParseTransferFault(c.text);
        ASSERT_EQ(fault.has_value(), c.expected.has_value()) << c.text;
        if (fault) {
            EXPECT_EQ(std::pair(fault->kind, fault->count), *c.expected) << c.text;
        }
    }
}

}  // namespace
}  // namespace ornixrig
