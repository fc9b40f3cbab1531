// The two functions an instruction counter brackets the counted calls with:
// bench/kernel_counts.sh and bench/doa_hop_counts.sh count the instructions
// executed between them (qemu-aarch64's block log) or inside the driver's
// counted function (callgrind). Included once per driver.
#pragma once

// The counters look for these two symbols; they must stay out of line.
extern "C" __attribute__((noinline)) void vorn_count_begin() { asm volatile(""); }
extern "C" __attribute__((noinline)) void vorn_count_end() { asm volatile(""); }
