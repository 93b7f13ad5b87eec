#include "bench/floor/CListFloor.h"

void floorListDestruct(FloorList* list)
{
    for (FloorNode* node = list->head; node != nullptr;) {
        FloorNode* const next = node->next;
        delete[] node;
        node = next;
    }
    *list = {nullptr, nullptr, 0};
}

uint32_t floorListPushHead(FloorList* list, unsigned long item)
{
    if (__builtin_expect(list == nullptr, 0)) {
        return 0x8008;
    }
    auto* const node = new FloorNode[1];
    node->item = item;
    node->next = list->head;
    list->head = node;
    if (list->tail == nullptr) {
        list->tail = node;
    }
    ++list->size;
    return 0;
}

uint32_t floorListPushTail(FloorList* list, unsigned long item)
{
    if (__builtin_expect(list == nullptr, 0)) {
        return 0x8008;
    }
    auto* const node = new FloorNode[1];
    node->item = item;
    node->next = nullptr;
    (list->head == nullptr ? list->head : list->tail->next) = node;
    list->tail = node;
    ++list->size;
    return 0;
}

uint32_t floorListPopHead(FloorList* list, unsigned long* item)
{
    if (__builtin_expect(list == nullptr || item == nullptr, 0)) {
        return 0x8008;
    }
    if (__builtin_expect(list->size == 0, 0)) {
        return 0x8004;
    }
    FloorNode* const node = list->head;
    if (__builtin_expect(node == nullptr, 0)) {
        return 0x800C;
    }
    *item = node->item;
    list->head = node->next;
    if (list->head == nullptr) {
        list->tail = nullptr;
    }
    --list->size;
    delete[] node;
    return 0;
}

uint32_t floorListStart(const FloorList* list, FloorNode** position)
{
    if (__builtin_expect(list == nullptr || position == nullptr, 0)) {
        return 0x8008;
    }
    if (list->head == nullptr) {
        return 0x8004;
    }
    *position = list->head;
    return 0;
}

uint32_t floorListNext(const FloorList* list, unsigned long* item, FloorNode** position)
{
    *item = 0;
    if (__builtin_expect(list == nullptr || position == nullptr || *position == nullptr, 0)) {
        return 0x8008;
    }
    const FloorNode* const node = *position;
    FloorNode* const next = node->next;
    *item = node->item;
    *position = next;
    return next == nullptr ? 0x1002 : 0;
}

uint32_t floorListItemExists(const FloorList* list, unsigned long item)
{
    const FloorNode* node = list->head;
    while (node != nullptr && node->item != item) {
        node = node->next;
    }
    return node != nullptr ? 1 : 0;
}

uint32_t floorListFind(const FloorList* list, unsigned long key, const FloorMatch* matcher,
                       FloorNode** position)
{
    if (__builtin_expect(list == nullptr || matcher == nullptr || position == nullptr, 0)) {
        return 0;
    }
    *position = nullptr;
    for (FloorNode* node = list->head; node != nullptr; node = node->next) {
        if ((*matcher)(node->item, key) != 0) {
            *position = node;
            return 1;
        }
    }
    return 0;
}

// One pass finds whether the list ends, and where the item stands first and last; a slow pointer at
// half the speed tells a ring. The second pass goes from the first place to the last.
uint32_t floorListRemove(FloorList* list, unsigned long item)
{
    if (__builtin_expect(list == nullptr, 0)) {
        return 0x8000;
    }
    FloorNode* before = nullptr;
    FloorNode* first = nullptr;
    FloorNode* last = nullptr;
    const auto look = [&](FloorNode* previous, FloorNode* node) {
        if (__builtin_expect(node->item == item, 0)) {
            before = first == nullptr ? previous : before;
            first = first == nullptr ? node : first;
            last = node;
        }
    };
    const FloorNode* slow = list->head;
    FloorNode* previous = nullptr;
    for (FloorNode* node = list->head; node != nullptr;) {
        look(previous, node);
        previous = node->next;
        if (previous == nullptr) {
            break;
        }
        look(node, previous);
        node = previous->next;
        slow = slow->next;
        if (node == slow) {
            if (node == nullptr) {
                break;
            }
            return 0x8008;
        }
    }
    if (first == nullptr) {
        return 0x8005;
    }
    for (FloorNode* node = first;;) {
        FloorNode* const next = node->next;
        if (node->item != item) {
            before = node;
            node = next;
            continue;
        }
        (before == nullptr ? list->head : before->next) = next;
        if (node == list->tail) {
            list->tail = before;
        }
        --list->size;
        const bool wasLast = node == last;
        delete[] node;
        if (wasLast) {
            return 0;
        }
        node = next;
    }
}
