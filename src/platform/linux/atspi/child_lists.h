// The children each parent had when last listed. The questions about those
// children go out with the next request for the list, in the same round
// trip; their answers serve only if the list has not changed since, so
// every answer is as fresh as the list itself.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/atspi/message.h"

namespace quorvel::linux_backend {

class ChildLists {
public:
    // The children `parent` had when last listed; none before the first time.
    const std::vector<ObjectRef>& last(const ObjectRef& parent) { return lists_[key(parent)]; }

    // Records `listed` as the children of `parent`, and tells whether the
    // answers asked along with it, about the last list, serve: whether the
    // list is unchanged, in the same order.
    bool unchanged(const ObjectRef& parent, const std::vector<ObjectRef>& listed) {
        std::vector<ObjectRef>& known = lists_[key(parent)];
        if (known == listed) return true;
        known = listed;
        return false;
    }

private:
    static std::pair<std::string, std::string> key(const ObjectRef& ref) {
        return {ref.bus, ref.path};
    }
    std::map<std::pair<std::string, std::string>, std::vector<ObjectRef>> lists_;
};

}  // namespace quorvel::linux_backend
