#pragma once

#include "platform/Neighbours.h"

namespace orlinth::platform {

/// The kernel's neighbour table, over rtnetlink(7).
///
/// A watch whose socket has overflowed lists the table anew. If that fails, it tries again every two seconds until it
/// succeeds; changes that come meanwhile are told as always.
class LinuxNeighbours final : public Neighbours {
public:
    [[nodiscard]] std::vector<Neighbour> list() const override;
    [[nodiscard]] std::unique_ptr<NeighbourWatch> watch(Executor executor,
                                                        std::function<void(const NeighbourEvent&)> onEvent) override;
};

} // namespace orlinth::platform
