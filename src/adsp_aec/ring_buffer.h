// Fixed-capacity ring of equal-sized elements over storage the owner provides.
// The echo canceller keeps its far-end pre-buffer, its far-end spectra and its
// near-end and output frames in these rings. A read hands out either a pointer
// into the ring (when the elements are contiguous) or a copy, and the read
// position can be moved back to re-read old elements.
//
// The ring finds its storage by a byte offset from its own record, not by a
// pointer: ring and storage live in the same instance record, so the record
// can be copied to other memory between calls and go on.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn {

enum Wrap { SAME_WRAP = 0, DIFF_WRAP = 1 };

struct RingBuffer {
  size_t read_pos;       // next element to read
  size_t write_pos;      // next element to write
  size_t element_count;  // capacity in elements
  size_t element_size;   // bytes per element
  Wrap rw_wrap;          // DIFF_WRAP: the writer is one lap ahead of the reader
  std::ptrdiff_t data_offset;  // storage (element_count * element_size bytes) minus this record's address
};
static_assert(sizeof(Wrap) == 4);
static_assert(offsetof(RingBuffer, rw_wrap) == 4 * sizeof(size_t));

// The ring's storage.
inline char* Adsp_BufferData(RingBuffer* self) {
  const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(self) + static_cast<std::uintptr_t>(self->data_offset);
  return reinterpret_cast<char*>(at);
}
inline const char* Adsp_BufferData(const RingBuffer* self) {
  const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(self) + static_cast<std::uintptr_t>(self->data_offset);
  return reinterpret_cast<const char*>(at);
}

// Sets up the ring over `storage`, which must lie in the same record as the
// ring so that both move together. -1 for a null ring, null storage or a
// zero count/size; else 0 with the ring emptied and its storage zeroed.
int Adsp_CreateBuffer(RingBuffer* self, void* storage, size_t element_count, size_t element_size);
void Adsp_InitBuffer(RingBuffer* self);
// Nothing to release: the storage belongs to the owner.
void Adsp_FreeBuffer(RingBuffer* self);

size_t Adsp_available_read(const RingBuffer* self);
size_t Adsp_available_write(const RingBuffer* self);

// Writes up to element_count elements; what does not fit is dropped. Returns
// the number written.
size_t Adsp_WriteBuffer(RingBuffer* self, const void* data, size_t element_count);

// Reads up to element_count elements. With data_ptr, *data_ptr points into the
// ring when the elements are contiguous (data untouched) and at data when they
// wrap (copied there); without data_ptr they are always copied into data.
// data must be present. Returns the number read.
size_t Adsp_ReadBuffer(RingBuffer* self, void** data_ptr, void* data, size_t element_count);

// Moves the read position by element_count (negative: backwards), limited to
// what is readable / writable. Returns the elements actually moved.
int Adsp_MoveReadPtr(RingBuffer* self, int element_count);

}  // namespace vorn
