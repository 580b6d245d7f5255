#pragma once

#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace pelm::lab {

/// A file a tool writes. It is made beside its final name, as FILE.partial, and renamed into place only once
/// complete and on disk, so a run that fails or is killed leaves an earlier FILE whole. What was written
/// before a kill stays readable in FILE.partial.
class OutputFile {
  public:
    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Removes the partial file unless it was committed.
    ~OutputFile();

    /// Starts FILE.partial; false, with `error` set, when it cannot be made.
    bool open(const std::string& path, std::string& error);
    bool isOpen() const { return out_.is_open(); }
    std::ostream& stream() { return out_; }
    /// Puts FILE.partial in place of FILE; false, with `error` set (and FILE as it was), when it cannot.
    bool commit(std::string& error);
    /// Drops what was written; FILE stays as it was.
    void discard();

  private:
    std::string path_, partial_;
    std::ofstream out_;
};

/// Why `output` must not be written, when it names the same file as one of `inputs` (the same device and
/// inode, or the same path for a file not made yet) or as an earlier output of the same run; none when it
/// may. `outputs` holds the outputs checked so far and gets this one added.
std::optional<std::string> sameFileProblem(const std::string& option, const std::string& output,
                                           const std::vector<std::string>& inputs,
                                           std::vector<std::pair<std::string, std::string>>& outputs);

}  // namespace pelm::lab
