#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vesk {

// The messages printed while a policy runs, kept in memory as the policy's log, within an
// optional budget of bytes. Once the budget is reached the message that crosses it is cut,
// recording stops, what is dropped from then on is counted, and one summary line says so.
//
// The budget is an estimate of the record the log travels in: a fixed charge up front and a
// charge per message besides its text. Not thread-safe; its one owner guards it.
class VKPolicyLogStorage {
 public:
  static constexpr std::uint64_t generalOverheadSize = 690;
  static constexpr std::uint64_t perMessageOverheadSize = 23;

  VKPolicyLogStorage() = default;

  // Stores (or, once recording has stopped, only counts) one event, then adds the summary
  // line if something has been cut or dropped and it is not there yet.
  void addLogEvent(const std::string& event);
  const std::vector<std::string>& logEvents() const { return events_; }
  // Empties the store and forgets the budget (0: none).
  void clean();

  void addEventToList(const std::optional<std::string>& event);
  bool shouldStopRecordingEvents() const;
  bool shouldBeTruncated(const std::string& event) const;
  // The event cut to the room the budget leaves, never inside a user-perceived character;
  // nullopt (and nothing counted) when no room is left.
  std::optional<std::string> truncateEvent(const std::string& event);
  void trackTruncatedBytes(std::uint64_t count);
  void addSummaryEvent();

  bool stopRecordingEvents() const { return stopRecordingEvents_; }
  void setStopRecordingEvents(bool value) { stopRecordingEvents_ = value; }
  bool summaryEventAdded() const { return summaryEventAdded_; }
  void setSummaryEventAdded(bool value) { summaryEventAdded_ = value; }
  std::uint64_t truncatedBytes() const { return truncatedBytes_; }
  void setTruncatedBytes(std::uint64_t value) { truncatedBytes_ = value; }
  std::uint64_t truncatedEvents() const { return truncatedEvents_; }
  void setTruncatedEvents(std::uint64_t value) { truncatedEvents_ = value; }
  std::uint64_t maxPolicyLogBytes() const { return maxPolicyLogBytes_; }
  void setMaxPolicyLogBytes(std::uint64_t value) { maxPolicyLogBytes_ = value; }
  const std::vector<std::string>& events() const { return events_; }
  void setEvents(std::vector<std::string> value) { events_ = std::move(value); }
  std::uint64_t totalLengthOfEvents() const { return totalLengthOfEvents_; }
  void setTotalLengthOfEvents(std::uint64_t value) { totalLengthOfEvents_ = value; }

 private:
  bool stopRecordingEvents_ = false;
  bool summaryEventAdded_ = false;
  std::uint64_t truncatedBytes_ = 0;
  std::uint64_t truncatedEvents_ = 0;
  std::uint64_t maxPolicyLogBytes_ = 0;
  std::vector<std::string> events_;
  std::uint64_t totalLengthOfEvents_ = generalOverheadSize;
};

// The first bytes of `text` up to and including the user-perceived character (grapheme
// cluster) that holds the character at `index`, characters being counted in UTF-16 units as
// the client's other programs count them. An index past the end means the last character.
std::string cutAfterCharacterAt(const std::string& text, std::size_t index);

}  // namespace vesk
