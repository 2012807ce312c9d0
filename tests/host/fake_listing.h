// Listing and cover commands of the fake service: canned blocks built by
// hand from the record layout, mixed with other clients' blocks, so that
// lumstoragectl ls and cover can be tested without the real service.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fake_devices.h"

namespace fakesvc {

// Directories of the canned listings.
constexpr const char kMusicDir[] = "/mnt/usb/sdb1/music";  // 3 blocks, total 5, other clients' between
constexpr const char kFifoDir[] = "/mnt/usb/sdb1/fifo";    // total 4, 2 records: 2 FIFOs send none
constexpr const char kEmptyDir[] = "/mnt/usb/sdb1/empty";  // 00 00 00 00
constexpr const char kDamagedDir[] = "/mnt/usb/sdb1/bad";  // a whole record, then one cut in its title

// READ_DIRS: the canned listing of the path, kRefused / kSilent as
// everywhere, any other path (the empty one too) the failure block 00 00 FF
// FF; the empty path is refused (reply false) unless g_answer_empty_path.
// EXTRACT_COVER FOLDER FILE: another file's answer, then status 0 (1 for
// kCoverFails) and "/tmp/share/FILE." with 3 spare bytes.
const Row* listing_rows(size_t* count);

constexpr const char kCoverFails[] = "fails.mp3";

extern std::atomic<bool> g_answer_empty_path;
// The READ_DIRS request Parcels the fake got, whole, in order of arrival.
std::vector<std::vector<uint8_t>> listing_requests();
// Forgets the requests and answers the empty path again.
void reset_listing();

}  // namespace fakesvc
