#include "logging/VKPolicyLogStorage.h"

#include <fmt/format.h>
#include <unigbrk.h>
#include <unistr.h>

namespace vesk {

std::string cutAfterCharacterAt(const std::string& text, std::size_t index) {
  if (text.empty()) return text;
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const std::size_t size = text.size();

  // Find the byte where the character at `index` starts; a character outside the Basic
  // Multilingual Plane counts twice, and an ill-formed byte counts as one character.
  std::size_t units = 0;
  std::size_t start = 0;
  std::size_t lastStart = 0;
  bool found = false;
  for (std::size_t at = 0; at < size;) {
    ucs4_t character = 0;
    const int length = u8_mbtouc(&character, bytes + at, size - at);
    const std::size_t width = character >= 0x10000 ? 2 : 1;
    lastStart = at;
    if (index < units + width) {
      start = at;
      found = true;
      break;
    }
    units += width;
    at += static_cast<std::size_t>(length > 0 ? length : 1);
  }
  if (!found) start = lastStart;  // clamped to the last character: the cut keeps everything

  // The cut falls at the first grapheme break after that character's start.
  std::vector<char> breaks(size);
  u8_grapheme_breaks(bytes, size, breaks.data());
  std::size_t end = start + 1;
  while (end < size && breaks[end] == 0) ++end;
  return text.substr(0, end);
}

void VKPolicyLogStorage::addLogEvent(const std::string& event) {
  if (stopRecordingEvents_) {
    trackTruncatedBytes(event.size());
  } else {
    std::optional<std::string> kept = event;
    if (shouldBeTruncated(event)) {
      stopRecordingEvents_ = true;
      kept = truncateEvent(event);
    }
    addEventToList(kept);
  }
  addSummaryEvent();
}

void VKPolicyLogStorage::clean() {
  events_.clear();
  maxPolicyLogBytes_ = 0;
  totalLengthOfEvents_ = generalOverheadSize;
  truncatedBytes_ = 0;
  truncatedEvents_ = 0;
  stopRecordingEvents_ = false;
  summaryEventAdded_ = false;
}

void VKPolicyLogStorage::addEventToList(const std::optional<std::string>& event) {
  if (!event || event->empty()) return;
  events_.push_back(*event);
  totalLengthOfEvents_ += event->size();
  totalLengthOfEvents_ += perMessageOverheadSize;
  if (shouldStopRecordingEvents()) stopRecordingEvents_ = true;
}

bool VKPolicyLogStorage::shouldStopRecordingEvents() const {
  if (maxPolicyLogBytes_ == 0) return false;
  return totalLengthOfEvents_ >= maxPolicyLogBytes_;
}

bool VKPolicyLogStorage::shouldBeTruncated(const std::string& event) const {
  if (maxPolicyLogBytes_ == 0) return false;
  return totalLengthOfEvents_ + event.size() + perMessageOverheadSize > maxPolicyLogBytes_;
}

std::optional<std::string> VKPolicyLogStorage::truncateEvent(const std::string& event) {
  const std::int64_t room = static_cast<std::int64_t>(maxPolicyLogBytes_) -
                            static_cast<std::int64_t>(totalLengthOfEvents_) -
                            static_cast<std::int64_t>(perMessageOverheadSize);
  // An event that meets a full budget vanishes without being counted; only the events after
  // it are. The summary line therefore waits for the next event.
  if (room < 1) return std::nullopt;
  std::string cut = cutAfterCharacterAt(event, static_cast<std::size_t>(room - 1));
  trackTruncatedBytes(event.size() - cut.size());
  return cut;
}

void VKPolicyLogStorage::trackTruncatedBytes(std::uint64_t count) {
  truncatedEvents_ += 1;
  truncatedBytes_ += count;
}

void VKPolicyLogStorage::addSummaryEvent() {
  if (summaryEventAdded_ || truncatedEvents_ == 0) return;
  events_.push_back(
      fmt::format("[Log data was truncated to a max size of {} bytes]", maxPolicyLogBytes_));
  summaryEventAdded_ = true;
}

}  // namespace vesk
