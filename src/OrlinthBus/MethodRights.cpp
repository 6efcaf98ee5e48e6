#include "OrlinthBus/MethodRights.h"

#include <algorithm>
#include <array>

namespace orlinth::bus {

namespace {

struct Row {
    std::string_view interface;
    std::string_view member;
    MethodRight right;
};

constexpr std::string_view service = "com.tarvinex.orlinth1.Service";
constexpr std::string_view phone = "com.tarvinex.orlinth1.Phone";
constexpr std::string_view batch = "com.tarvinex.orlinth1.Batch";
constexpr std::string_view transfer = "com.tarvinex.orlinth1.Transfer";
constexpr std::string_view offer = "com.tarvinex.orlinth1.Offer";
constexpr std::string_view pairing = "com.tarvinex.orlinth1.Pairing";

/// Every method of the service. One that is not here can be called by nobody.
constexpr std::array rows{
    Row{service, "SendFiles", MethodRight::everybody}, Row{service, "Pair", MethodRight::unjailed},
    Row{service, "SendText", MethodRight::unjailed},   Row{service, "GetLastText", MethodRight::unjailed},
    Row{service, "GetHistory", MethodRight::unjailed}, Row{service, "ClearHistory", MethodRight::unjailed},
    Row{service, "SetSetting", MethodRight::unjailed}, Row{service, "Restart", MethodRight::unjailed},
    Row{phone, "Rename", MethodRight::unjailed},       Row{phone, "Remove", MethodRight::unjailed},
    Row{phone, "Wake", MethodRight::unjailed},         Row{batch, "Cancel", MethodRight::everybody},
    Row{batch, "RetryNow", MethodRight::everybody},    Row{transfer, "Cancel", MethodRight::everybody},
    Row{offer, "Accept", MethodRight::unjailed},       Row{offer, "Decline", MethodRight::unjailed},
    Row{pairing, "GetCode", MethodRight::unjailed},    Row{pairing, "Confirm", MethodRight::unjailed},
    Row{pairing, "Cancel", MethodRight::unjailed},
};

} // namespace

std::optional<MethodRight> rightOf(std::string_view interface, std::string_view member) noexcept {
    const auto* const row =
        std::ranges::find_if(rows, [&](const Row& one) { return one.interface == interface && one.member == member; });
    return row != rows.end() ? std::optional(row->right) : std::nullopt;
}

} // namespace orlinth::bus
