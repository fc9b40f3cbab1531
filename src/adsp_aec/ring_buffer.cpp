// Ring of fixed-size elements over caller storage. The reader and writer
// positions live in [0, element_count]; rw_wrap records whether the writer has
// lapped the reader, which is what separates a full ring from an empty one
// without sacrificing a slot. Moving the read position backwards re-exposes
// old elements: the echo canceller uses that for its 64-sample overlap.
#include "adsp_aec/ring_buffer.h"

#include <algorithm>
#include <cstring>

namespace vorn {

int Adsp_CreateBuffer(RingBuffer* self, void* storage, size_t element_count, size_t element_size) {
  if (self == nullptr || storage == nullptr || element_count == 0 || element_size == 0) return -1;
  self->data_offset = static_cast<std::ptrdiff_t>(reinterpret_cast<std::uintptr_t>(storage) -
                                                  reinterpret_cast<std::uintptr_t>(self));
  self->element_count = element_count;
  self->element_size = element_size;
  Adsp_InitBuffer(self);
  return 0;
}

void Adsp_InitBuffer(RingBuffer* self) {
  self->read_pos = 0;
  self->write_pos = 0;
  self->rw_wrap = SAME_WRAP;
  std::memset(Adsp_BufferData(self), 0, self->element_count * self->element_size);
}

void Adsp_FreeBuffer(RingBuffer* /*self*/) {}

size_t Adsp_available_read(const RingBuffer* self) {
  if (self == nullptr) return 0;
  if (self->rw_wrap == SAME_WRAP) return self->write_pos - self->read_pos;
  return self->element_count - self->read_pos + self->write_pos;
}

size_t Adsp_available_write(const RingBuffer* self) {
  if (self == nullptr) return 0;
  return self->element_count - Adsp_available_read(self);
}

size_t Adsp_WriteBuffer(RingBuffer* self, const void* data, size_t element_count) {
  if (self == nullptr || data == nullptr) return 0;
  const size_t write_elements = std::min(Adsp_available_write(self), element_count);
  const char* source = static_cast<const char*>(data);
  size_t remaining = write_elements;
  if (write_elements > self->element_count - self->write_pos) {
    // The write runs past the end: fill up to the end and start the next lap.
    const size_t to_end = self->element_count - self->write_pos;
    std::memcpy(Adsp_BufferData(self) + self->write_pos * self->element_size, source, to_end * self->element_size);
    self->write_pos = 0;
    self->rw_wrap = DIFF_WRAP;
    source += to_end * self->element_size;
    remaining -= to_end;
  }
  std::memcpy(Adsp_BufferData(self) + self->write_pos * self->element_size, source, remaining * self->element_size);
  self->write_pos += remaining;
  return write_elements;
}

size_t Adsp_ReadBuffer(RingBuffer* self, void** data_ptr, void* data, size_t element_count) {
  if (self == nullptr || data == nullptr) return 0;
  const size_t read_elements = std::min(Adsp_available_read(self), element_count);
  const size_t to_end = self->element_count - self->read_pos;
  char* first = Adsp_BufferData(self) + self->read_pos * self->element_size;
  if (read_elements > to_end) {
    // The elements wrap: join both pieces in the caller's buffer.
    const size_t first_bytes = to_end * self->element_size;
    std::memcpy(data, first, first_bytes);
    std::memcpy(static_cast<char*>(data) + first_bytes, Adsp_BufferData(self),
                (read_elements - to_end) * self->element_size);
    if (data_ptr != nullptr) *data_ptr = data;
  } else if (data_ptr != nullptr) {
    *data_ptr = first;
  } else {
    std::memcpy(data, first, read_elements * self->element_size);
  }
  Adsp_MoveReadPtr(self, static_cast<int>(read_elements));
  return read_elements;
}

int Adsp_MoveReadPtr(RingBuffer* self, int element_count) {
  if (self == nullptr) return 0;
  const long readable = static_cast<long>(Adsp_available_read(self));
  const long writable = static_cast<long>(Adsp_available_write(self));
  const long moved = std::clamp(static_cast<long>(element_count), -writable, readable);
  long read_pos = static_cast<long>(self->read_pos) + moved;
  const long capacity = static_cast<long>(self->element_count);
  // Strictly greater: a position equal to the capacity is left as it is; the
  // counts stay right and the next copy starts at the wrap.
  if (read_pos > capacity) {
    read_pos -= capacity;
    self->rw_wrap = SAME_WRAP;
  }
  if (read_pos < 0) {
    read_pos += capacity;
    self->rw_wrap = DIFF_WRAP;
  }
  self->read_pos = static_cast<size_t>(read_pos);
  return static_cast<int>(moved);
}

}  // namespace vorn
