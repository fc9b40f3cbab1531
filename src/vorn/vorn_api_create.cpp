// The one place the library allocates, and only when asked to: a state on
// the heap for callers who would rather not size memory themselves.
#include <cstdlib>

#include "vorn/vorn_api_state.h"

extern "C" VornState* vorn_create(const VornSettings* settings, int* error) {
  auto* st = static_cast<VornState*>(std::calloc(1, vorn_state_size()));
  int rc = st == nullptr ? VORN_E_ALLOC : vorn_init(st, vorn_state_size(), settings);
  if (rc != VORN_OK) {
    std::free(st);
    st = nullptr;
  }
  if (error != nullptr) *error = rc;
  return st;
}

extern "C" void vorn_destroy(VornState* st) { std::free(st); }
