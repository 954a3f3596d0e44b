// A doubly linked list of ListItems, each carrying a pointer or an unsigned
// value. The list owns its items (never the objects they point to) and locks
// itself, so one list may be shared between threads.
#ifndef SYSTEM_WRAPPERS_LIST_WRAPPER_H_
#define SYSTEM_WRAPPERS_LIST_WRAPPER_H_

#include <atomic>
#include <mutex>

#include "sw_export.h"

namespace webrtc {

class ListWrapper;

class SW_EXPORT ListItem {
public:
    // GetUnsignedItem answers 0 for a pointer item, GetItem null for a value item.
    explicit ListItem(const void* aPtr);
    explicit ListItem(unsigned int aItem);
    ListItem(const ListItem&) = delete;
    ListItem& operator=(const ListItem&) = delete;

    void* GetItem() const;
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

// Every call takes the list's lock. An item pointer stays valid only while
// nobody erases or pops it. Results are 0 on success, -1 on refusal.
class SW_EXPORT ListWrapper {
public:
    ListWrapper();
    // Frees the items still held and traces a memory line when there were any.
    ~ListWrapper();
    ListWrapper(const ListWrapper&) = delete;
    ListWrapper& operator=(const ListWrapper&) = delete;

    unsigned int GetSize() const;
    bool Empty() const;

    // -1 only when the item cannot be allocated.
    int PushBack(const void* aPtr);
    int PushBack(unsigned int aItem);
    int PushFront(const void* aPtr);
    int PushFront(unsigned int aItem);

    // Delete the end item; -1 when the list is empty.
    int PopFront();
    int PopBack();

    // Null when the list is empty.
    ListItem* First() const;
    ListItem* Last() const;
    // Null at the ends, for null, and for an item of another list.
    ListItem* Next(ListItem* aItem) const;
    ListItem* Previous(ListItem* aItem) const;

    // Deletes the item; -1 for null or an item of another list.
    int Erase(ListItem* aItem);

    // Insert puts aNewItem after aExistingPrevious, InsertBefore before
    // aExistingNext; on success the list owns aNewItem. A null neighbour is
    // accepted only by an empty list, where aNewItem becomes the only item.
    // Refused with -1, aNewItem staying the caller's: a null aNewItem, one
    // already held by a list, a null neighbour in a non-empty list, or a
    // neighbour of another list.
    int Insert(ListItem* aExistingPrevious, ListItem* aNewItem);
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
