// Makes inputs for the unpackers' fuzz programs: as raw bytes, and by bending the structure of
// packed messages, of which it makes new ones now and then; so no seeds are needed.
#include "fuzz/unpacker_inputs.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

#include "fuzz/naive_decoder.hpp"
#include "fuzz/records.hpp"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maximumSize);

namespace kel::fuzz {
namespace {

// A valid message, in either form.
std::vector<uint8_t> makeMessage(const Message& message, Entropy& entropy) {
  RecordRoom record;
  fillRecord(*message.shape, entropy, &record);
  std::vector<uint8_t> bytes;
  if (message.fixedPack != nullptr && entropy.below(2) == 0) {
    bytes.resize(message.fixedSize());
    message.fixedPack(bytes.data(), &record);
  } else {
    const uint32_t size = message.pack(nullptr, &record);
    bytes.resize(size);
    const PackTarget target{bytes.data(), &size};
    message.pack(&target, &record);
  }
  return bytes;
}

// Bends one thing about a message that may have been bent before.
class Bender {
 public:
  Bender(uint8_t* bytes, size_t size, size_t capacity, const Shape& shape, Entropy& entropy)
      : bytes_(bytes), size_(size), capacity_(capacity), entropy_(entropy) {
    words_.clear();
    if (size < 4) return;
    RecordRoom record;
    naiveDecode(shape, {bytes, size}, &record, &words_);
  }

  // Returns the new size.
  size_t bend() {
    constexpr void (Bender::*kWays[])() = {&Bender::moveVtable,     &Bender::moveTarget,
                                           &Bender::overlapTargets, &Bender::swapEntries,
                                           &Bender::resize,         &Bender::bendWord};
    const size_t way = std::min(entropy_.below(8), std::size(kWays) - 1);  // words most of all
    if (!words_.empty()) (this->*kWays[way])();
    return size_;
  }

 private:
  [[nodiscard]] uint64_t load(uint64_t position, uint32_t width) const {
    uint64_t value = 0;
    if (position + width <= size_) std::memcpy(&value, bytes_ + position, width);
    return value;
  }
  [[nodiscard]] uint64_t load(const Word& word) const { return load(word.position, word.width); }
  [[nodiscard]] uint64_t targetOf(const Word& word) const { return word.position + load(word); }
  void store(const Word& word, uint64_t value) {
    if (word.position + word.width <= size_) {
      std::memcpy(bytes_ + word.position, &value, word.width);
    }
  }

  // One of no width where there is none, which loads as 0 and stores nothing.
  Word choose(Role role) {
    const size_t start = entropy_.below(words_.size());
    for (size_t i = 0; i < words_.size(); ++i) {
      const Word& word = words_[(start + i) % words_.size()];
      if (word.role == role) return word;
    }
    return {};
  }

  // To the limits of the message, of the word and of what its sums can hold.
  void bendWord() {
    const Word& word = words_[entropy_.below(words_.size())];
    const uint64_t near = entropy_.below(9) - 4;
    const uint64_t values[] = {near,
                               load(word) + near,
                               size_ + near,
                               size_ - word.position + near,
                               size_ - word.table + near,
                               0U - word.position + entropy_.below(64),
                               0x80000000 + near,
                               0x40000000 + near,
                               size_ / 4 + near,
                               entropy_.below(size_ + 8),
                               entropy_.next(),
                               entropy_.next() & 0xFFFF};
    store(word, values[entropy_.below(std::size(values))]);
  }

  // Puts a copy of count bytes behind the message; returns where, or 0 when there is no room.
  uint64_t appendCopy(uint64_t position, uint64_t count) {
    if (position + count > size_ || size_ + count > capacity_) return 0;
    std::memmove(bytes_ + size_, bytes_ + position, count);
    size_ += count;
    return size_ - count;
  }

  void moveVtable() {
    const Word word = choose(Role::displacement);
    const uint64_t vtable = (word.position - load(word)) & 0xFFFFFFFF;
    const uint64_t copy = appendCopy(vtable, load(vtable, 2));
    if (copy != 0) store(word, word.position - copy);
  }

  void moveTarget() {
    const Word word = choose(Role::offset);
    const uint64_t target = targetOf(word);
    const uint64_t copy = appendCopy(target, 4 + load(target, 4));
    if (copy != 0) store(word, copy - word.position);
  }

  void overlapTargets() {
    const Word word = choose(Role::offset);
    store(word, targetOf(choose(Role::offset)) - word.position);
  }

  void swapEntries() {
    const Word one = choose(Role::entry);
    const Word other = choose(Role::entry);
    const uint64_t value = load(one);
    store(one, load(other));
    store(other, value);
  }

  void resize() {
    if (entropy_.below(2) == 0) {
      size_ -= entropy_.below(size_ < 16 ? size_ : 16);
    } else if (size_ + 16 <= capacity_) {
      std::memset(bytes_ + size_, entropy_.byte(), 16);
      size_ += 1 + entropy_.below(16);
    }
  }

  static std::vector<Word> words_;
  uint8_t* bytes_;
  size_t size_;
  size_t capacity_;
  Entropy& entropy_;
};
std::vector<Word> Bender::words_;

}  // namespace

const Message& chosenMessage(uint8_t choice) {
  static const std::vector<Message> messages = [] {
    std::vector<Message> received;
    std::ranges::copy_if(allMessages(), std::back_inserter(received), [](const Message& message) {
      return message.receiver == KEL_FUZZED_SIDE;
    });
    return received;
  }();
  return messages[choice % 32 % messages.size()];
}

}  // namespace kel::fuzz

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maximumSize,
                                          unsigned seed) {
  using namespace kel::fuzz;
  Entropy entropy(seed);
  const uint64_t kind = entropy.below(16);
  if (size == 0 || kind == 0) {  // another message
    const uint8_t choice = entropy.byte();
    const std::vector<uint8_t> bytes = makeMessage(chosenMessage(choice), entropy);
    if (1 + bytes.size() > maximumSize) return size;
    data[0] = choice;
    std::memcpy(data + 1, bytes.data(), bytes.size());
    size = 1 + bytes.size();
  } else if (kind < 5) {
    return 1 + LLVMFuzzerMutate(data + 1, size - 1, maximumSize - 1);
  }
  do {
    size =
        1 +
        Bender(data + 1, size - 1, maximumSize - 1, *chosenMessage(data[0]).shape, entropy).bend();
  } while (entropy.below(3) == 0);
  return size;
}
