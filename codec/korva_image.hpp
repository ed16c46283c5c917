// Stretches of a message whose layout only the schema decides. An image says where each of their
// bytes comes from; here it is written, compared and read back. For the packers and the unpacker.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "codec/korva_vector.hpp"

namespace korva::image {

// Adjacent bytes, all from the record or all constants of the schema.
struct Piece {
  uint32_t size;
  uint32_t source;  // within the record, or kSchema

  static constexpr uint32_t kSchema = UINT32_MAX;
};

template <uint32_t Size>
class Image {
 public:
  std::array<uint8_t, Size> constants{};  // the schema's own bytes, zeros elsewhere
  uint32_t recordSize;

  explicit constexpr Image(uint32_t sizeOfRecord) : recordSize(sizeOfRecord) {
    sources_.fill(kUnused);
  }

  [[nodiscard]] constexpr uint32_t size() const { return Size; }

  template <class Value>
  constexpr void put(uint32_t position, Value value) {
    const auto bytes = std::bit_cast<std::array<uint8_t, sizeof(Value)>>(value);
    std::ranges::copy(bytes, constants.begin() + position);
    std::fill_n(sources_.begin() + position, sizeof(Value), Piece::kSchema);
  }

  constexpr void take(uint32_t position, uint32_t source, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i) {
      sources_[position + i] = source + i;
    }
  }

  // The piece that begins at position.
  [[nodiscard]] constexpr Piece pieceAt(uint32_t position) const {
    const uint32_t first = sources_[position];
    uint32_t end = position + 1;
    while (end < Size && sources_[end] == next(sources_[end - 1])) {
      ++end;
    }
    return {end - position, first};
  }

  // Where the next piece begins, at position or after it.
  [[nodiscard]] constexpr uint32_t firstUsed(uint32_t position) const {
    while (position < Size && sources_[position] == kUnused) {
      ++position;
    }
    return position;
  }

  // Whether a byte is the schema's own, and where the first such one is, at position or after it.
  [[nodiscard]] constexpr bool isConstant(uint32_t position) const {
    return sources_[position] == Piece::kSchema;
  }
  [[nodiscard]] constexpr uint32_t firstConstant(uint32_t position) const {
    while (position < Size && !isConstant(position)) {
      ++position;
    }
    return position;
  }

  // How many bytes to store at position where so many are needed: rounded up to a single store, of
  // at least four, if what follows overwrites the excess.
  [[nodiscard]] constexpr uint32_t storedBytes(uint32_t position, uint32_t bytes) const {
    const uint32_t rounded =
        bytes < kVectorWidth ? std::max(std::bit_ceil(bytes), uint32_t{4}) : bytes;
    return firstUnused(position) >= position + rounded ? rounded : bytes;
  }

 private:
  static constexpr uint32_t kUnused = UINT32_MAX - 1;

  static constexpr uint32_t next(uint32_t source) {
    return source == kUnused || source == Piece::kSchema ? source : source + 1;
  }

  [[nodiscard]] constexpr uint32_t firstUnused(uint32_t position) const {
    while (position < Size && sources_[position] != kUnused) {
      ++position;
    }
    return position;
  }

  std::array<uint32_t, Size> sources_{};
};

// The vector that was last loaded from the record, where it begins at byte From; none if From is
// kNothing.
inline constexpr uint32_t kNothing = UINT32_MAX;
template <uint32_t From>
struct Loaded {
  ByteVector bytes;

  // How many of its bytes lie at source and after it.
  static constexpr uint32_t count(uint32_t source) {
    return source >= From && source - From < kVectorWidth ? kVectorWidth - (source - From) : 0;
  }
};

constexpr uint32_t vectorCount(uint32_t size) { return (size + kVectorWidth - 1) / kVectorWidth; }

// Whether to take the first of size bytes from a loaded vector, in which so many are available: if
// that saves a load.
constexpr bool isWorthTaking(uint32_t available, uint32_t size) {
  return vectorCount(size - std::min(size, available)) < vectorCount(size);
}

// How many of size bytes to copy as whole pairs of vectors, each of which ARM loads and stores by
// one instruction if it is part of one copy; at most as many as Clang copies without a call.
constexpr uint32_t bytesOfPairs(uint32_t size) {
  constexpr uint32_t kPair = 2 * kVectorWidth;
  return std::min(size, 4 * kPair) / kPair * kPair;
}

template <const auto& Of, uint32_t Position, uint32_t From>
void writeFrom(uint8_t* buffer, const uint8_t* record, Loaded<From> loaded);

// Writes what is left of a piece of the record, and all that follows it.
template <const auto& Of, uint32_t Position, uint32_t Source, uint32_t Size, uint32_t From>
[[gnu::always_inline]] inline void writePiece(uint8_t* buffer, const uint8_t* record,
                                              Loaded<From> loaded) {
  constexpr uint32_t kAvailable = Loaded<From>::count(Source);
  constexpr uint32_t kBytes =
      std::min(Size, isWorthTaking(kAvailable, Size) ? kAvailable : kVectorWidth);
  constexpr uint32_t kStored = Of.storedBytes(Position, kBytes);
  if constexpr (Size == 0) {
    writeFrom<Of, Position>(buffer, record, loaded);
  } else if constexpr (isWorthTaking(kAvailable, Size)) {
    storeVectorFront<kStored>(buffer + Position, shiftDown<Source - From>(loaded.bytes));
    writePiece<Of, Position + kBytes, Source + kBytes, Size - kBytes>(buffer, record, loaded);
  } else if constexpr (constexpr uint32_t kTogether = bytesOfPairs(Size); kTogether != 0) {
    std::memcpy(buffer + Position, record + Source, kTogether);
    writePiece<Of, Position + kTogether, Source + kTogether, Size - kTogether>(buffer, record,
                                                                               loaded);
  } else if constexpr (Source + kVectorWidth <= Of.recordSize) {
    const Loaded<Source> now{loadVector<kVectorWidth>(record + Source)};
    storeVectorFront<kStored>(buffer + Position, now.bytes);
    writePiece<Of, Position + kBytes, Source + kBytes, Size - kBytes>(buffer, record, now);
  } else {
    std::memcpy(buffer + Position, record + Source, Size);
    writeFrom<Of, Position + Size>(buffer, record, loaded);
  }
}

// A variable of its own, since it is all of the image that the program needs at run time.
template <const auto& Of>
inline constexpr auto kConstants = Of.constants;

// Writes the pieces from Position on, in order, since each may overwrite what the one before it
// stored in excess.
template <const auto& Of, uint32_t Position, uint32_t From>
[[gnu::always_inline]] inline void writeFrom(uint8_t* buffer, const uint8_t* record,
                                             Loaded<From> loaded) {
  constexpr uint32_t kPosition = Of.firstUsed(Position);
  if constexpr (kPosition < Of.size()) {
    constexpr Piece kPiece = Of.pieceAt(kPosition);
    if constexpr (kPiece.source == Piece::kSchema) {
      constexpr uint32_t kBytes = Of.storedBytes(kPosition, kPiece.size);
      std::memcpy(buffer + kPosition, kConstants<Of>.data() + kPosition, kBytes);
      writeFrom<Of, kPosition + kPiece.size>(buffer, record, loaded);
    } else {
      writePiece<Of, kPosition, kPiece.source, kPiece.size>(buffer, record, loaded);
    }
  }
}

// Writes a whole image, but for the bytes that it does not use.
template <const auto& Of>
[[gnu::always_inline]] inline void write(uint8_t* buffer, const uint8_t* record) {
  writeFrom<Of, 0>(buffer, record, Loaded<kNothing>{});
}

// A vector of an image: the bytes that are the schema's own, with zeros for the others, and a mask
// of which those are.
struct Expected {
  alignas(kVectorWidth) std::array<uint8_t, kVectorWidth> bytes;
  alignas(kVectorWidth) std::array<uint8_t, kVectorWidth> mask;
};
template <const auto& Of, uint32_t Position>
inline constexpr Expected kExpected = [] {
  Expected expected{};
  for (uint32_t i = 0; i < kVectorWidth; ++i) {
    expected.bytes[i] = Of.constants[Position + i];
    expected.mask[i] = Of.isConstant(Position + i) ? 0xFF : 0;
  }
  return expected;
}();

// All zeros if the schema's own bytes from Position on equal those of the buffer, which must hold
// the whole image.
template <const auto& Of, uint32_t Position = 0>
[[gnu::always_inline]] inline ByteVector difference(const uint8_t* buffer) {
  constexpr uint32_t kConstant = Of.firstConstant(Position);
  if constexpr (kConstant == Of.size()) {
    return ByteVector{};
  } else {
    constexpr uint32_t kAt = std::min(kConstant, Of.size() - kVectorWidth);
    constexpr const Expected& kHere = kExpected<Of, kAt>;
    const ByteVector found =
        loadVector<kVectorWidth>(buffer + kAt) & loadAligned(kHere.mask.data());
    return (found ^ loadAligned(kHere.bytes.data())) | difference<Of, kAt + kVectorWidth>(buffer);
  }
}

// Reads the record's bytes from Position on; its padding keeps what it held.
template <const auto& Of, uint32_t Position = 0>
[[gnu::always_inline]] inline void read(const uint8_t* buffer, uint8_t* record) {
  constexpr uint32_t kPosition = Of.firstUsed(Position);
  if constexpr (kPosition < Of.size()) {
    constexpr Piece kPiece = Of.pieceAt(kPosition);
    if constexpr (kPiece.source != Piece::kSchema) {
      std::memcpy(record + kPiece.source, buffer + kPosition, kPiece.size);
    }
    read<Of, kPosition + kPiece.size>(buffer, record);
  }
}

}  // namespace korva::image
