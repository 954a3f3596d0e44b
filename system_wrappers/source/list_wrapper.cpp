// The locked doubly linked list of ListItems.
#include "list_wrapper.h"

#include <new>

#include "webrtc_trace.h"

namespace webrtc {

ListItem::ListItem(const void* aPtr)
    : m_next(nullptr), m_previous(nullptr), m_owner(nullptr), m_itemPtr(aPtr), m_item(0) {}

ListItem::ListItem(unsigned int aItem)
    : m_next(nullptr), m_previous(nullptr), m_owner(nullptr), m_itemPtr(nullptr), m_item(aItem) {}

void* ListItem::GetItem() const {
    return const_cast<void*>(m_itemPtr);
}

unsigned int ListItem::GetUnsignedItem() const {
    return m_item;
}

ListWrapper::ListWrapper() : m_first(nullptr), m_last(nullptr), m_size(0) {}

ListWrapper::~ListWrapper() {
    if (!m_first) return;
    // The owner should have emptied the list: what the items point to may be lost.
    Trace::Add(kTraceMemory, kTraceUtility, -1, "Potential memory leak in ListWrapper");
    while (m_first) {
        ListItem* item = m_first;
        m_first = item->m_next;
        delete item;
    }
}

unsigned int ListWrapper::GetSize() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_size;
}

bool ListWrapper::Empty() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_size == 0;
}

int ListWrapper::PushBack(const void* aPtr) {
    return Add(new (std::nothrow) ListItem(aPtr), false);
}

int ListWrapper::PushBack(unsigned int aItem) {
    return Add(new (std::nothrow) ListItem(aItem), false);
}

int ListWrapper::PushFront(const void* aPtr) {
    return Add(new (std::nothrow) ListItem(aPtr), true);
}

int ListWrapper::PushFront(unsigned int aItem) {
    return Add(new (std::nothrow) ListItem(aItem), true);
}

int ListWrapper::PopFront() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ListItem* item = m_first;
    if (!item) return -1;
    Unlink(item);
    delete item;
    return 0;
}

int ListWrapper::PopBack() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ListItem* item = m_last;
    if (!item) return -1;
    Unlink(item);
    delete item;
    return 0;
}

ListItem* ListWrapper::First() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_first;
}

ListItem* ListWrapper::Last() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_last;
}

ListItem* ListWrapper::Next(ListItem* aItem) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return Owns(aItem) ? aItem->m_next : nullptr;
}

ListItem* ListWrapper::Previous(ListItem* aItem) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return Owns(aItem) ? aItem->m_previous : nullptr;
}

int ListWrapper::Erase(ListItem* aItem) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!Owns(aItem)) return -1;
    Unlink(aItem);
    delete aItem;
    return 0;
}

int ListWrapper::Insert(ListItem* aExistingPrevious, ListItem* aNewItem) {
    return Place(aExistingPrevious, aNewItem, true);
}

int ListWrapper::InsertBefore(ListItem* aExistingNext, ListItem* aNewItem) {
    return Place(aExistingNext, aNewItem, false);
}

bool ListWrapper::Owns(const ListItem* aItem) const {
    // Our own items only change owner under our lock, so relaxed suffices.
    return aItem && aItem->m_owner.load(std::memory_order_relaxed) == this;
}

int ListWrapper::Add(ListItem* aNewItem, bool aFront) {
    if (!aNewItem) return -1;
    aNewItem->m_owner.store(this, std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (aFront) {
        Link(aNewItem, nullptr, m_first);
    } else {
        Link(aNewItem, m_last, nullptr);
    }
    return 0;
}

void ListWrapper::Link(ListItem* aNewItem, ListItem* aPrevious, ListItem* aNext) {
    aNewItem->m_previous = aPrevious;
    aNewItem->m_next = aNext;
    (aPrevious ? aPrevious->m_next : m_first) = aNewItem;
    (aNext ? aNext->m_previous : m_last) = aNewItem;
    ++m_size;
}

int ListWrapper::Place(ListItem* aNeighbour, ListItem* aNewItem, bool aAfter) {
    if (!aNewItem) return -1;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (aNeighbour ? !Owns(aNeighbour) : m_first != nullptr) return -1;
    // Claiming the item atomically keeps two lists from adopting it at once.
    const ListWrapper* unowned = nullptr;
    if (!aNewItem->m_owner.compare_exchange_strong(unowned, this, std::memory_order_relaxed)) {
        return -1;
    }
    if (!aNeighbour) {
        Link(aNewItem, nullptr, nullptr);
    } else if (aAfter) {
        Link(aNewItem, aNeighbour, aNeighbour->m_next);
    } else {
        Link(aNewItem, aNeighbour->m_previous, aNeighbour);
    }
    return 0;
}

void ListWrapper::Unlink(ListItem* aItem) {
    (aItem->m_previous ? aItem->m_previous->m_next : m_first) = aItem->m_next;
    (aItem->m_next ? aItem->m_next->m_previous : m_last) = aItem->m_previous;
    aItem->m_owner.store(nullptr, std::memory_order_relaxed);
    --m_size;
}

}  // namespace webrtc
