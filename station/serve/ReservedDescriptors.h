#pragma once

namespace station {

// Descriptors for connections, beside those of all other objects of this class and what else the
// process needs: without a free one, GLib retries accept(), and logs the failure, without a pause.
//
// Threads: the main context's.
class ReservedDescriptors {
 public:
  // Raises the process's limit of open files if it is too low. Throws StationError (Usage) if the
  // system does not allow it.
  explicit ReservedDescriptors(unsigned int count);
  ~ReservedDescriptors();
  ReservedDescriptors(const ReservedDescriptors&) = delete;
  ReservedDescriptors& operator=(const ReservedDescriptors&) = delete;

 private:
  static unsigned int& total();

  const unsigned int count_;
};

}  // namespace station
