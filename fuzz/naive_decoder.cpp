// The naive decoder.
#include "fuzz/naive_decoder.hpp"

#include <cstring>
#include <limits>

namespace kel::fuzz {
namespace {

class Decoder {
 public:
  Decoder(std::span<const uint8_t> message, std::vector<Word>* words)
      : message_(message), words_(words) {}

  Verdict decode(const Shape& shape, uint8_t* record) {
    std::memset(record, 0, shape.recordSize);
    note(Role::rootOffset, 4, 0);
    verdict_.accepted = table(shape, word(0, 4), record, true);
    return verdict_;
  }

 private:
  [[nodiscard]] bool within(uint64_t position, uint64_t count) const {
    return position + count <= message_.size();
  }

  [[nodiscard]] uint64_t word(uint64_t position, unsigned width) const {
    uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) value |= uint64_t{message_[position + i]} << (8 * i);
    return value;
  }

  void note(Role role, uint32_t width, uint64_t position, uint64_t table = 0) {
    if (words_ != nullptr) words_->push_back({role, width, position, table});
  }

  bool refuse(bool isRoot, const char* fault, uint64_t value, uint64_t limit) {
    if (isRoot) {
      verdict_.fault = fault;
      verdict_.faultNumbers[0] = static_cast<uint32_t>(value);
      verdict_.faultNumbers[1] = static_cast<uint32_t>(limit);
    }
    return false;
  }

  bool table(const Shape& shape, uint64_t at, uint8_t* record, bool isRoot) {
    const uint64_t length = message_.size();
    if (at < 4 || at > length - 4) {
      return refuse(isRoot, "[KORVA]:Table offset(%u) is out of range(4 - %u)", at, length);
    }
    note(Role::displacement, 4, at, at);
    const uint64_t vtable = (at - word(at, 4)) & 0xFFFFFFFF;
    if (vtable < 4 || vtable > length - 4) {
      return refuse(isRoot, "[KORVA]:Vtable offset(%u) is out of range(4 - %u)", vtable,
                    length - 4);
    }
    note(Role::vtableLength, 2, vtable);
    note(Role::tableLength, 2, vtable + 2);
    const uint64_t vtableLength = word(vtable, 2);
    if (!within(vtable, vtableLength)) {
      return refuse(isRoot, "[KORVA]:Vtable Len(%u) is out of range(0 - %u)", vtableLength,
                    length - vtable);
    }
    uint64_t taken = 4;
    for (size_t slot = 0; slot < shape.fields.size(); ++slot) {
      if (vtableLength < 6 + 2 * slot) break;
      const uint64_t entryAt = vtable + 4 + 2 * slot;
      note(Role::entry, 2, entryAt, at);
      const uint64_t entry = word(entryAt, 2);
      if (entry == 0) continue;
      const Field& its = shape.fields[slot];
      if (!field(its, at + entry, record)) return false;
      taken += ownBytes(its, at + entry);
    }
    verdict_.tablesAreTight &= word(vtable + 2, 2) == (taken & 0xFFFF);
    return true;
  }

  // What a field adds to its table's length, tables of its own left out.
  [[nodiscard]] uint64_t ownBytes(const Field& field, uint64_t at) const {
    if (field.kind == Kind::scalar) return field.width;
    if (field.kind == Kind::table) return 4;
    const uint64_t count = word(at + word(at, 4), 4);
    if (field.kind == Kind::vector) return 4 + 4 + 4 * count;
    return 4 + 4 + count + (field.kind == Kind::string ? 1 : 0);
  }

  bool field(const Field& field, uint64_t at, uint8_t* record) {
    uint8_t* const member = record + field.at;
    if (field.kind == Kind::scalar) {
      if (!within(at, field.width)) return false;
      std::memcpy(member, &message_[at], field.width);
      return true;
    }
    if (!within(at, 4)) return false;
    note(Role::offset, 4, at);
    const uint64_t target = at + word(at, 4);
    if (field.kind == Kind::table) return table(*field.nested, target, member, false);
    if (!within(target, 4)) return false;
    note(Role::count, 4, target);
    const uint64_t count = word(target, 4);
    if (field.kind == Kind::vector) return vector(field, target + 4, count, record);
    if (!within(target + 4, count)) return false;
    const uint8_t* const content = message_.data() + target + 4;
    if (field.kind == Kind::bytes) {
      if (count != field.width) return false;
      std::memcpy(member, content, field.width);
      return true;
    }
    uint8_t* const text = allocate(count + 1);
    std::memcpy(text, content, count);
    std::memcpy(member, &text, sizeof text);
    return true;
  }

  bool vector(const Field& field, uint64_t entries, uint64_t count, uint8_t* record) {
    const uint64_t size = count * field.nested->recordSize;
    if (!within(entries, 4 * count) || size > std::numeric_limits<uint32_t>::max()) return false;
    if (count == 0) return true;
    uint8_t* const elements = allocate(size);
    const auto count32 = static_cast<uint32_t>(count);
    std::memcpy(record + field.at, &elements, sizeof elements);
    std::memcpy(record + field.countAt, &count32, sizeof count32);
    for (uint64_t i = 0; i < count; ++i) {
      const uint64_t entry = entries + 4 * i;
      note(Role::offset, 4, entry);
      uint8_t* const element = elements + i * field.nested->recordSize;
      if (!table(*field.nested, entry + word(entry, 4), element, false)) return false;
    }
    return true;
  }

  // One block at most: no message has two strings or vectors.
  uint8_t* allocate(uint64_t size) {
    static std::vector<uint8_t> block;
    block.assign(size, 0);
    verdict_.allocates = true;
    verdict_.allocation = size;
    return block.data();
  }

  std::span<const uint8_t> message_;
  std::vector<Word>* words_;
  Verdict verdict_;
};

}  // namespace

Verdict naiveDecode(const Shape& shape, std::span<const uint8_t> message, void* record,
                    std::vector<Word>* words) {
  return Decoder(message, words).decode(shape, static_cast<uint8_t*>(record));
}

}  // namespace kel::fuzz
