#pragma once
// A block's field names → field definitions: open addressing over a power-of-two table, so a by-name read
// costs one inline hash, one mask and usually one comparison, less than a std::unordered_map with the same
// hash (BM_ReadNumericTextByName, BM_WriteNumericTextByName).

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace blockproc {

class FieldInfo;

// Hashes field names (short, from definitions) eight bytes at a time, inline.
struct StringHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept {
    const char* p = s.data();
    size_t n = s.size();
    uint64_t h = 0x9E3779B97F4A7C15ULL ^ n;
    uint64_t word;
    for (; n >= 8; n -= 8, p += 8) {
      std::memcpy(&word, p, 8);
      h = (h ^ word) * 0xBF58476D1CE4E5B9ULL;
      h ^= h >> 29;
    }
    // The last 1 to 7 bytes by two overlapping loads (or three single bytes), never one byte at a time.
    if (n >= 4) {
      uint32_t lo, hi;
      std::memcpy(&lo, p, 4);
      std::memcpy(&hi, p + n - 4, 4);
      word = (uint64_t{hi} << 32) | lo;
    } else if (n > 0) {
      word = (uint64_t{static_cast<uint8_t>(p[0])} << 16) | (uint64_t{static_cast<uint8_t>(p[n / 2])} << 8) |
             static_cast<uint8_t>(p[n - 1]);
    } else {
      word = 0;
    }
    h = (h ^ word) * 0x94D049BB133111EBULL;
    return static_cast<size_t>(h ^ (h >> 31));
  }
};

class FieldNameIndex {
 public:
  // Adds the name unless it is already there (the first field of a name is kept); false when it was.
  bool insert(std::string_view name, const FieldInfo* field) {
    if ((count_ + 1) * 4 > slots_.size() * 3) grow();
    const size_t h = StringHash{}(name);
    Slot* slot = probe(name, h);
    if (slot->field != nullptr) return false;
    *slot = Slot{h, field, std::string(name)};
    ++count_;
    return true;
  }

  // The field of exactly that name, or nullptr.
  const FieldInfo* find(std::string_view name) const noexcept {
    if (count_ == 0) return nullptr;
    return probe(name, StringHash{}(name))->field;
  }

  size_t size() const noexcept { return count_; }

 private:
  struct Slot {
    size_t hash = 0;
    const FieldInfo* field = nullptr;  // nullptr: empty
    std::string name;
  };

  // The slot holding the name, or the empty slot where it would go. The table is never full.
  Slot* probe(std::string_view name, size_t h) const noexcept {
    const size_t mask = slots_.size() - 1;
    for (size_t i = h & mask;; i = (i + 1) & mask) {
      const Slot& s = slots_[i];
      if (s.field == nullptr || (s.hash == h && s.name == name)) return const_cast<Slot*>(&s);
    }
  }

  void grow() {
    std::vector<Slot> old(slots_.empty() ? 16 : slots_.size() * 2);
    old.swap(slots_);
    for (Slot& s : old) {
      if (s.field == nullptr) continue;
      *probe(s.name, s.hash) = std::move(s);
    }
  }

  std::vector<Slot> slots_;
  size_t count_ = 0;
};

}  // namespace blockproc
