/// @file
/// An ordered map from int ids to MapItems, each carrying a pointer. The map
/// owns its items (never the objects they point to). Not locked: one thread at
/// a time.
#ifndef SYSTEM_WRAPPERS_MAP_WRAPPER_H_
#define SYSTEM_WRAPPERS_MAP_WRAPPER_H_

#include <map>

#include "sw_export.h"

namespace webrtc {

/// One entry of a MapWrapper: an id and a pointer. A map makes its items in
/// MapWrapper::Insert, owns and frees them; an item pointer stays valid until
/// the item is erased or the map destroyed. A MapItem the caller constructs
/// stays the caller's: no map adopts it. Not copyable.
class SW_EXPORT MapItem {
public:
    /// An item with id aId carrying aPtr (borrowed: the item never frees it).
    MapItem(int aId, void* aPtr);
    MapItem(const MapItem&) = delete;
    MapItem& operator=(const MapItem&) = delete;

    /// The id.
    int GetId() const;
    /// The id converted to unsigned int.
    unsigned int GetUnsignedId() const;
    /// The pointer the item carries.
    void* GetItem() const;
    /// Replaces the pointer the item carries (the old one is not freed).
    void SetItem(void* aPtr);

private:
    int m_id;
    void* m_item;
};

/// An ordered map from int ids to the MapItems it owns, in ascending id
/// order. Not locked: one thread at a time. Results are 0 on success, -1 on
/// refusal.
class SW_EXPORT MapWrapper {
public:
    /// An empty map.
    MapWrapper();
    /// Frees the items still held, never what they point to. Traces nothing.
    ~MapWrapper();
    MapWrapper(const MapWrapper&) = delete;
    MapWrapper& operator=(const MapWrapper&) = delete;

    /// Adds an item for aId carrying aPtr (borrowed). An existing id keeps
    /// its item, which gets the new pointer. -1 only when memory runs out.
    int Insert(int aId, void* aPtr);
    /// Deletes aItem; -1 for null, an absent id or an item of another map.
    int Erase(MapItem* aItem);
    /// Deletes the item of aId; -1 when the id is absent.
    int Erase(int aId);

    /// The number of items.
    int Size() const;
    /// The item with the smallest id, or null when the map is empty.
    MapItem* First() const;
    /// The item with the largest id, or null when the map is empty.
    MapItem* Last() const;
    /// The item with the next larger id; null at the end, for null, and for
    /// an item of another map.
    MapItem* Next(MapItem* aItem) const;
    /// The item with the next smaller id; null at the start, for null, and
    /// for an item of another map.
    MapItem* Previous(MapItem* aItem) const;
    /// The item of aId (still the map's), or null when the id is absent.
    MapItem* Find(int aId) const;

private:
    typedef std::map<int, MapItem*> Items;
    // The entry of aItem, or end() when aItem is not one of ours.
    Items::const_iterator Locate(const MapItem* aItem) const;

    Items m_items;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_MAP_WRAPPER_H_
