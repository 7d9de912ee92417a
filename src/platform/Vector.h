// Vector: the platform's growing array. Not thread-safe.
#pragma once

#include <cstddef>
#include <vector>

namespace android {

template <typename T>
class Vector {
  public:
    // Appends a copy at the end.
    void add(const T& item) { m_items.push_back(item); }
    size_t size() const { return m_items.size(); }
    bool isEmpty() const { return m_items.empty(); }
    void clear() { m_items.clear(); }
    const T& operator[](size_t index) const { return m_items[index]; }
    auto begin() const { return m_items.begin(); }
    auto end() const { return m_items.end(); }

  private:
    std::vector<T> m_items;
};

}  // namespace android
