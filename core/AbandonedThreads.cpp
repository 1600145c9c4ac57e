#include "core/AbandonedThreads.h"

#include <mutex>
#include <vector>

namespace vistrel {

void keepUntilExit(std::thread thread)
{
    static auto *guard = new std::mutex;
    static auto *threads = new std::vector<std::thread>;
    std::lock_guard lock(*guard);
    threads->push_back(std::move(thread));
}

} // namespace vistrel
