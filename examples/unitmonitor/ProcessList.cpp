#include "examples/unitmonitor/ProcessList.h"

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <memory>

#include "Framework/GCL/ResultCodes.h"

namespace unitmonitor {
namespace {

const Process& processOf(unsigned long item)
{
    return *reinterpret_cast<const Process*>(item);
}

uint32_t hasId(unsigned long item, unsigned long key)
{
    return processOf(item).pid == static_cast<pid_t>(key) ? 1 : 0;
}

uint32_t hasParent(unsigned long item, unsigned long key)
{
    return processOf(item).parent == static_cast<pid_t>(key) ? 1 : 0;
}

// Reads one process; false if it has ended meanwhile. See proc(5) for the fields of stat.
bool readProcess(const std::string& id, Process& process)
{
    std::ifstream stat("/proc/" + id + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return false;
    }
    const size_t open = line.find('(');
    const size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close + 4 > line.size()) {
        return false;
    }
    process.pid = static_cast<pid_t>(std::strtol(id.c_str(), nullptr, 10));
    process.name = line.substr(open + 1, close - open - 1);
    process.parent = static_cast<pid_t>(std::strtol(line.c_str() + close + 4, nullptr, 10));
    return true;
}

} // namespace

ProcessList::ProcessList()
{
    CList_Construct(&list);
}

ProcessList::~ProcessList()
{
    clear();
}

void ProcessList::clear()
{
    unsigned long item = 0;
    while (CList_PopHead(&list, &item) == GCL_OK) {
        delete &processOf(item);
    }
}

bool ProcessList::read()
{
    clear();
    DIR* const folder = opendir("/proc");
    if (folder == nullptr) {
        return false;
    }
    while (const dirent* const entry = readdir(folder)) {
        auto process = std::make_unique<Process>();
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9' ||
            !readProcess(entry->d_name, *process)) {
            continue;
        }
        CList_PushTail(&list, reinterpret_cast<unsigned long>(process.release()));
    }
    closedir(folder);
    return true;
}

bool ProcessList::addBehindParent(pid_t pid)
{
    auto process = std::make_unique<Process>();
    const CListMatcher matcher = {hasId};
    CListNode* position = nullptr;
    if (!readProcess(std::to_string(pid), *process) ||
        CList_Find(&list, static_cast<unsigned long>(process->parent), &matcher, &position) == 0) {
        return false;
    }
    const auto item = reinterpret_cast<unsigned long>(process.release());
    // CList_InsertAfter leaves the list's tail where it is, so the end has a call of its own.
    if (position == list.pTail) {
        CList_PushTail(&list, item);
    } else {
        CList_InsertAfter(&list, item, position);
    }
    return true;
}

const Process* ProcessList::find(pid_t pid) const
{
    const CListMatcher matcher = {hasId};
    unsigned long item = 0;
    if (CList_FindAndRetrieve(&list, static_cast<unsigned long>(pid), &matcher, &item) == 0) {
        return nullptr;
    }
    return &processOf(item);
}

uint32_t ProcessList::removeChildrenOf(pid_t parent)
{
    const CListMatcher matcher = {hasParent};
    uint32_t count = 0;
    unsigned long item = 0;
    while (CList_FindAndRetrieve(&list, static_cast<unsigned long>(parent), &matcher, &item) != 0) {
        CList_Remove(&list, item);
        delete &processOf(item);
        ++count;
    }
    return count;
}

void ProcessList::printIds() const
{
    CList ids;
    CList_Construct(&ids);
    CListNode* position = nullptr;
    uint32_t result = CList_StartIterationFromHead(&list, &position);
    while (result == GCL_OK) {
        unsigned long item = 0;
        result = CList_GetNext(&list, &item, &position);
        CList_PushTail(&ids, static_cast<unsigned long>(processOf(item).pid));
    }
    CList_PrintScalar(&ids, 1);
    CList_Destruct(&ids);
}

} // namespace unitmonitor
