// An ordered map from int ids to MapItems, each carrying a pointer. The map
// owns its items (never the objects they point to). Not locked: one thread at
// a time.
#ifndef SYSTEM_WRAPPERS_MAP_WRAPPER_H_
#define SYSTEM_WRAPPERS_MAP_WRAPPER_H_

#include <map>

#include "sw_export.h"

namespace webrtc {

class SW_EXPORT MapItem {
public:
    MapItem(int aId, void* aPtr);
    MapItem(const MapItem&) = delete;
    MapItem& operator=(const MapItem&) = delete;

    int GetId() const;
    unsigned int GetUnsignedId() const;
    void* GetItem() const;
    void SetItem(void* aPtr);

private:
    int m_id;
    void* m_item;
};

// Items in ascending id order. Results are 0 on success, -1 on refusal.
class SW_EXPORT MapWrapper {
public:
    MapWrapper();
    // Frees the items still held.
    ~MapWrapper();
    MapWrapper(const MapWrapper&) = delete;
    MapWrapper& operator=(const MapWrapper&) = delete;

    // An existing id keeps its item, which gets the new pointer. -1 only when
    // memory runs out.
    int Insert(int aId, void* aPtr);
    // Delete the item; -1 for null, an absent id or an item of another map.
    int Erase(MapItem* aItem);
    int Erase(int aId);

    int Size() const;
    // Null when the map is empty.
    MapItem* First() const;
    MapItem* Last() const;
    // Null at the ends, for null, and for an item of another map.
    MapItem* Next(MapItem* aItem) const;
    MapItem* Previous(MapItem* aItem) const;
    // Null when the id is absent.
    MapItem* Find(int aId) const;

private:
    typedef std::map<int, MapItem*> Items;
    // The entry of aItem, or end() when aItem is not one of ours.
    Items::const_iterator Locate(const MapItem* aItem) const;

    Items m_items;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_MAP_WRAPPER_H_
