/// @file
/// A doubly linked list of ListItems, each carrying a pointer or an unsigned
/// value. The list owns its items (never the objects they point to) and locks
/// itself, so one list may be shared between threads.
#ifndef SYSTEM_WRAPPERS_LIST_WRAPPER_H_
#define SYSTEM_WRAPPERS_LIST_WRAPPER_H_

#include <atomic>
#include <mutex>

#include "sw_export.h"

namespace webrtc {

class ListWrapper;

/// One entry of a ListWrapper: a pointer or an unsigned value. The caller
/// owns an item it creates until a list accepts it (ListWrapper::Insert,
/// ListWrapper::InsertBefore); the list then frees it with delete, so such an
/// item must come from new. Not copyable.
class SW_EXPORT ListItem {
public:
    /// An item carrying aPtr (borrowed: the item never frees it);
    /// GetUnsignedItem answers 0.
    explicit ListItem(const void* aPtr);
    /// An item carrying aItem; GetItem answers null.
    explicit ListItem(unsigned int aItem);
    ListItem(const ListItem&) = delete;
    ListItem& operator=(const ListItem&) = delete;

    /// The pointer the item carries; null for a value item.
    void* GetItem() const;
    /// The value the item carries; 0 for a pointer item.
    unsigned int GetUnsignedItem() const;

private:
    friend class ListWrapper;

    ListItem* m_next;
    ListItem* m_previous;
    // The list holding the item, null while the caller owns it. Another list
    // may read it without that list's lock, hence atomic.
    std::atomic<const ListWrapper*> m_owner;
    const void* m_itemPtr;
    unsigned int m_item;
};

/// A doubly linked list that owns its ListItems. Every call takes the list's
/// lock, so any thread may call it. An item pointer stays valid only while
/// nobody erases or pops it. Results are 0 on success, -1 on refusal.
class SW_EXPORT ListWrapper {
public:
    /// An empty list.
    ListWrapper();
    /// Frees the items still held (never what they point to) and, when there
    /// were any, traces "Potential memory leak in ListWrapper" at
    /// kTraceMemory (a debug line). No other thread may use the list then.
    ~ListWrapper();
    ListWrapper(const ListWrapper&) = delete;
    ListWrapper& operator=(const ListWrapper&) = delete;

    /// The number of items.
    unsigned int GetSize() const;
    /// True when the list holds no item.
    bool Empty() const;

    /// Appends a new item carrying aPtr (borrowed); -1 only when the item
    /// cannot be allocated.
    int PushBack(const void* aPtr);
    /// Appends a new item carrying aItem; -1 only when the item cannot be
    /// allocated.
    int PushBack(unsigned int aItem);
    /// Prepends a new item carrying aPtr (borrowed); -1 only when the item
    /// cannot be allocated.
    int PushFront(const void* aPtr);
    /// Prepends a new item carrying aItem; -1 only when the item cannot be
    /// allocated.
    int PushFront(unsigned int aItem);

    /// Deletes the first item; -1 when the list is empty.
    int PopFront();
    /// Deletes the last item; -1 when the list is empty.
    int PopBack();

    /// The first item (still the list's), or null when the list is empty.
    ListItem* First() const;
    /// The last item (still the list's), or null when the list is empty.
    ListItem* Last() const;
    /// The item after aItem; null at the end, for null, and for an item of
    /// another list.
    ListItem* Next(ListItem* aItem) const;
    /// The item before aItem; null at the start, for null, and for an item of
    /// another list.
    ListItem* Previous(ListItem* aItem) const;

    /// Unlinks and deletes aItem; -1 for null or an item of another list.
    int Erase(ListItem* aItem);

    /// Puts aNewItem after aExistingPrevious; on success the list owns it.
    /// A null neighbour is accepted only by an empty list, where aNewItem
    /// becomes the only item. Refused with -1, aNewItem staying the caller's:
    /// a null aNewItem, one already held by a list, a null neighbour in a
    /// non-empty list, or a neighbour of another list.
    int Insert(ListItem* aExistingPrevious, ListItem* aNewItem);
    /// Puts aNewItem before aExistingNext, under the same rules as Insert.
    int InsertBefore(ListItem* aExistingNext, ListItem* aNewItem);

private:
    bool Owns(const ListItem* aItem) const;
    int Add(ListItem* aNewItem, bool aFront);
    // Links aNewItem between aPrevious and aNext (either may be null at an end).
    void Link(ListItem* aNewItem, ListItem* aPrevious, ListItem* aNext);
    int Place(ListItem* aNeighbour, ListItem* aNewItem, bool aAfter);
    void Unlink(ListItem* aItem);

    mutable std::mutex m_mutex;
    ListItem* m_first;
    ListItem* m_last;
    unsigned int m_size;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_LIST_WRAPPER_H_
