// The ordered id-to-item map, over std::map.
#include "map_wrapper.h"

#include <iterator>
#include <new>

namespace webrtc {

MapItem::MapItem(int aId, void* aPtr) : m_id(aId), m_item(aPtr) {}

int MapItem::GetId() const {
    return m_id;
}

unsigned int MapItem::GetUnsignedId() const {
    return static_cast<unsigned int>(m_id);
}

void* MapItem::GetItem() const {
    return m_item;
}

void MapItem::SetItem(void* aPtr) {
    m_item = aPtr;
}

MapWrapper::MapWrapper() = default;

MapWrapper::~MapWrapper() {
    for (const auto& entry : m_items) delete entry.second;
}

int MapWrapper::Insert(int aId, void* aPtr) {
    const Items::iterator found = m_items.lower_bound(aId);
    if (found != m_items.end() && found->first == aId) {
        found->second->SetItem(aPtr);
        return 0;
    }
    MapItem* item = new (std::nothrow) MapItem(aId, aPtr);
    if (!item) return -1;
    // The tree node is allocated by std::map; its failure must not escape.
    try {
        m_items.emplace_hint(found, aId, item);
    } catch (...) {
        delete item;
        return -1;
    }
    return 0;
}

int MapWrapper::Erase(MapItem* aItem) {
    const Items::const_iterator entry = Locate(aItem);
    if (entry == m_items.end()) return -1;
    m_items.erase(entry);
    delete aItem;
    return 0;
}

int MapWrapper::Erase(int aId) {
    const Items::const_iterator entry = m_items.find(aId);
    if (entry == m_items.end()) return -1;
    MapItem* item = entry->second;
    m_items.erase(entry);
    delete item;
    return 0;
}

int MapWrapper::Size() const {
    return static_cast<int>(m_items.size());
}

MapItem* MapWrapper::First() const {
    return m_items.empty() ? nullptr : m_items.begin()->second;
}

MapItem* MapWrapper::Last() const {
    return m_items.empty() ? nullptr : m_items.rbegin()->second;
}

MapItem* MapWrapper::Next(MapItem* aItem) const {
    Items::const_iterator entry = Locate(aItem);
    if (entry == m_items.end() || ++entry == m_items.end()) return nullptr;
    return entry->second;
}

MapItem* MapWrapper::Previous(MapItem* aItem) const {
    const Items::const_iterator entry = Locate(aItem);
    if (entry == m_items.end() || entry == m_items.begin()) return nullptr;
    return std::prev(entry)->second;
}

MapItem* MapWrapper::Find(int aId) const {
    const Items::const_iterator entry = m_items.find(aId);
    return entry == m_items.end() ? nullptr : entry->second;
}

MapWrapper::Items::const_iterator MapWrapper::Locate(const MapItem* aItem) const {
    if (!aItem) return m_items.end();
    const Items::const_iterator entry = m_items.find(aItem->GetId());
    // An item of another map may share the id: only the very object counts.
    return entry != m_items.end() && entry->second == aItem ? entry : m_items.end();
}

}  // namespace webrtc
