/// The progress of the programs that backup2 starts.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "vel/vel_file.h"

namespace backup2_admin {

/// While it lives the children report into a file of this object (BACKUP2_PROGRESS), or into the
/// one that the caller of backup2 named by that variable; on a terminal a thread draws a bar on
/// standard error from it, with rate and time left. One at a time.
class ProgressView {
public:
    struct Line {
        uint64_t bytes = 0, of_bytes = 0, files = 0, of_files = 0;
    };

    /// `dir` is where the file lies: one that only root can enter.
    ProgressView(std::string title, const std::string& dir);
    ProgressView(const ProgressView&) = delete;
    ProgressView& operator=(const ProgressView&) = delete;
    ~ProgressView();

    /// Where the archiver cannot know how much there will be: measures these folders meanwhile, so
    /// that the bar can tell the time left; a caller's file gets the sum as a line of step
    /// "measure". Does nothing when nobody looks.
    void Measure(const std::string& root, const std::list<std::string>& folders);

    /// Shows what the copy tool uploads, of `bytes` in all, in place of what the archiver does.
    void ShowUploads(uint64_t bytes);

    double Seconds() const;  ///< since it was made
    /// Ends the drawing, takes the bar off the screen; the last report of the program `tool`.
    Line Finish(const std::string& tool);

private:
    void Draw();
    void ReadReports();
    void TakeUpload(const Line& line);
    std::optional<Line> Seen() const;
    std::string Bar() const;
    void Stop();

    std::string title_, caller_file_;
    std::optional<vel_file::Tmp> file_;  // when the caller named none
    vel_file::ResHandle reports_;
    int64_t read_to_ = 0;
    std::string half_line_;
    std::map<std::string, Line> latest_;
    std::atomic<uint64_t> uploads_{0};  // bytes of all, 0: they are not shown
    uint64_t uploaded_ = 0;             // by the calls before the latest
    double start_;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> measured_{0};
    std::thread drawer_, measurer_;
};

}  // namespace backup2_admin
