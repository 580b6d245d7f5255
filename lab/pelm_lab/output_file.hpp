#pragma once

#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace pelm::lab {

/// A file a tool writes. A regular file (or a new one) is made beside its final name, as FILE.partial, and
/// renamed into place only once complete and on disk, so a run that fails or is killed leaves an earlier FILE
/// whole; what was written before a kill stays readable in FILE.partial. Anything else that exists (a FIFO,
/// a terminal, /dev/null, standard output given as "-") is written into as it is, never replaced.
class OutputFile {
  public:
    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Removes the partial file unless it was committed.
    ~OutputFile();

    /// Starts FILE.partial, or opens what is not a regular file; false, with `error` set, when it cannot be
    /// made (or a FIFO has no reader).
    bool open(const std::string& path, std::string& error);
    bool isOpen() const { return out_.is_open(); }
    std::ostream& stream() { return out_; }
    /// Puts FILE.partial in place of FILE; false, with `error` set (and FILE as it was), when it cannot.
    bool commit(std::string& error);
    /// Drops what was written; FILE stays as it was.
    void discard();

  private:
    bool openDirect(const std::string& path, std::string& error);

    std::string path_, partial_;
    std::ofstream out_;
    bool direct_ = false;
};

/// True for "-" and for an existing path that is not a regular file: what is written into, not replaced.
bool isStreamOutput(const std::string& path);

/// Standard output as a path that can be opened ("/dev/fd/N"), for the data of an output named "-". From the
/// first call on, what the program prints for people goes to standard error instead, so that the data alone
/// reaches the pipe.
std::string standardOutputPath();

/// Why `output` must not be written, when it names the same file as one of `inputs` (the same device and
/// inode, or the same path for a file not made yet) or as an earlier output of the same run; none when it
/// may. `outputs` holds the outputs checked so far and gets this one added.
std::optional<std::string> sameFileProblem(const std::string& option, const std::string& output,
                                           const std::vector<std::string>& inputs,
                                           std::vector<std::pair<std::string, std::string>>& outputs);

}  // namespace pelm::lab
