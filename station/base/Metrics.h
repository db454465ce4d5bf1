#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <vector>

namespace station {

// Figures of the whole process, which the HTTP server publishes. Each part of the program adds its
// own, whichever command runs it.
//
// Threads: any.
class Metrics {
 public:
  enum class Kind { Counter, Gauge };  // a counter begins at 0 and only grows

  struct Figure {
    const char* name;  // "frames"
    Kind kind;
    const char* help;  // a sentence
    std::uint64_t value;
    const char* reason = nullptr;  // of one of several with the same name, which follow each other
  };
  using Figures = std::vector<Figure>;

  struct Part {
    std::string name;               // "record", once in the process
    std::function<Figures()> read;  // on any thread
  };

  // Publishes a part while it lives. The destructor waits for a running call of `read`.
  class Publication {
   public:
    Publication(std::string name, std::function<Figures()> read);
    ~Publication();
    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;

   private:
    std::list<Part>::iterator place_;
  };

  // Calls `visit` for every part, in the order of their beginning.
  static void visit(const std::function<void(const std::string& part, const Figures&)>& visit);

 private:
  static Metrics& process();

  std::mutex mutex_;
  std::list<Part> parts_;
};

}  // namespace station
