#include "fakes/MemorySurvivors.h"

#include <algorithm>
#include <map>
#include <memory>

namespace orlinth::fakes::memory {
namespace {

/// Copies what a crash leaves. A node that has several names is copied once.
class Survivors {
public:
    explicit Survivors(CrashKind kind) : kind_(kind) {}

    NodePointer copy(const NodePointer& node) {
        NodePointer& known = copies_[node.get()];
        if (known) {
            return known;
        }
        const NodePointer result = std::make_shared<Node>(*node);
        known = result;
        result->lockedBy = nullptr;
        result->nameCount = 0;
        result->content = contentOf(*node);
        result->flushedContent = result->content;
        const bool namesAsSeen = kind_ == CrashKind::processKill || kind_ == CrashKind::powerCutNamesFirst;
        const Names names = namesAsSeen ? node->names : node->flushedNames;
        result->names.clear();
        for (const auto& [name, child] : names) {
            setName(result->names, name, copy(child));
        }
        result->flushedNames = result->names;
        return result;
    }

private:
    [[nodiscard]] Bytes contentOf(const Node& node) const {
        switch (kind_) {
        case CrashKind::processKill:
        case CrashKind::powerCutDataFirst:
            return node.content;
        case CrashKind::powerCut:
            return node.flushedContent;
        case CrashKind::powerCutNamesFirst:
            break;
        }
        Bytes content = node.flushedContent;
        content.resize(std::max(content.size(), node.content.size())); // with zeros
        return content;
    }

    CrashKind kind_;
    std::map<const Node*, NodePointer> copies_;
};

} // namespace

NodePointer survivorsOf(const NodePointer& root, CrashKind kind) {
    return Survivors(kind).copy(root);
}

} // namespace orlinth::fakes::memory
