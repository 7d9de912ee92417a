// Questions to a reader and its answers: one process, started when something is asked and anew
// after its end. Whatever a question leads to, it ends with an answer or a Failure.
//
// Threads  one at a time, but for interrupt(). A question waits for the disk, at most kPatience.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "common/unique_fd.h"
#include "reader/client/reader_process.h"
#include "reader/protocol.h"

namespace nuvio::reader {

struct Failure {
    enum class Kind {
        file,     // this file ends a reader, and will do so again
        disk,     // it did not answer in time, or was told to wait no longer
        machine,  // there is no reader to be had
    };
    Kind kind;
    std::string reason;
};

template <typename Result>
using Outcome = std::variant<Result, Failure>;

// A picture in memory that nobody can change the size of. What it holds was put there by a reader,
// but for its first bytes, which say that it is a picture.
struct Picture {
    UniqueFd memory;  // none: there is no picture
    size_t size = 0;  // bytes

    std::string bytes() const;
};

class Questions {
  public:
    static constexpr std::chrono::seconds kPatience{30};

    // `program`: the file's name, see reader_process.h.
    explicit Questions(const char* program);
    Questions(const Questions&) = delete;
    Questions& operator=(const Questions&) = delete;

    // The answer is the asked reader's, and to be believed in nothing.
    Outcome<Answer> ask(Request request, const UniqueFd& file, const UniqueFd& memory = {});
    // For a job that leads to a picture.
    Outcome<Picture> ask_for_picture(const Request& request, const UniqueFd& file);

    // Gives the process back until the next question.
    void rest();
    // A question that is under way, and each one from now on, is a failure of the disk. Any thread.
    void interrupt();

  private:
    bool wait();

    const char* const m_program;
    const UniqueFd m_interruption;  // an eventfd
    std::unique_ptr<ReaderProcess> m_process;
    uint32_t m_number = 0;
};

}  // namespace nuvio::reader
