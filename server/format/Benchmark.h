// Disk benchmark: the event payload, the progress stages read off the
// tool's output, and the life of the one benchmark thread, whose state the
// service thread (ticks, cancel) and the thread itself share only through
// the functions of Benchmark.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

#define BENCHMARK_OUTPUT_FILE "/tmp/iozone.txt"
// The output is read into a buffer of this size: only its first 1999 bytes count.
#define BENCHMARK_OUTPUT_BUF_LEN 2000
#define BENCHMARK_FIRST_POLL_MS 2000
#define BENCHMARK_NEXT_POLL_MS 4000
// Ticks allowed before the benchmark is cancelled (about 1800 s).
#define BENCHMARK_MAX_TICKS 450

#define BENCHMARK_EVENT_LEN 10
// The event of a thread that could not be created carries two more zero bytes.
#define BENCHMARK_EVENT_LEN_NO_THREAD 12

#define BENCHMARK_STATUS_DONE 0
#define BENCHMARK_STATUS_STOPPED 1
#define BENCHMARK_STATUS_RUNNING 8

// Results of ReadBenchmarkResult.
#define BENCHMARK_RESULT_OK 0
#define BENCHMARK_RESULT_NO_OUTPUT 17
#define BENCHMARK_RESULT_NO_MIXED 18
#define BENCHMARK_RESULT_NO_AVG 19
#define BENCHMARK_RESULT_NO_EQUALS 20
#define BENCHMARK_RESULT_NO_FIGURE 21

// Writes the event into out: status, progress, speed and processes as two
// big-endian 32-bit numbers, and with padded two zero bytes more. Returns
// its length (10 or 12), or 0 when out is too small.
size_t build_benchmark_event(unsigned char* out, size_t size, unsigned char status, unsigned char progress,
                             uint32_t speed, uint32_t processes, bool padded);

// The progress after one tick: the next stage when text holds the marker
// that leaves the current one, else current.
unsigned char benchmark_next_stage(unsigned char current, const char* text);

// The figure of the mixed workload in text (the tool's output, already cut
// to what counts): BENCHMARK_RESULT_* and, on success, *figure.
int parse_benchmark_figure(const char* text, unsigned long* figure);

// What tests and traces may look at.
bool benchmark_running();
unsigned char benchmark_progress();
unsigned long benchmark_ticks();
// Benchmark threads started and not yet ended.
int benchmark_threads_alive();
