/// What every client of a cloud storage does.
#pragma once

#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace vel_rpc {

/// Paths are absolute ("/a/b") or relative to the root, byte strings; "//" counts as "/". Every
/// failure throws vel_err::Error: "network" (no answer), "unauthorized" (refused for good: the
/// credential is dead), "storage" with object "missed" (no such file) or "refused" (any other
/// answer; value: step, path, status and the provider's words). No error holds a credential.
/// Used by one thread at a time.
class Cloud {
public:
    virtual ~Cloud() = default;
    Cloud(const Cloud&) = delete;
    Cloud& operator=(const Cloud&) = delete;

    /// Writes the file's bytes; a cut download throws after what came was written.
    virtual void Get(const std::string& path, std::ostream& out) = 0;
    /// Stores the stream up to its end, in place of what is there, and compares size and checksum
    /// with what was sent. 201: stored; 401: the credential is dead; 507: no room. Every other
    /// failure throws; nothing is left under `path` then, or what was there before. The third
    /// argument is not used.
    virtual int Put(const std::string& path, std::istream& in, const std::string& type) = 0;
    /// Of a path that ends in "/": appends the bare names of the files and folders in it, all
    /// pages. Of another: the name of exactly this file, or nothing. What does not exist is empty.
    virtual void List(const std::string& path, std::vector<std::string>& out) = 0;
    /// Removes one file for good, not into a bin.
    virtual void Delete(const std::string& path) = 0;
    /// Makes the folder and its parents; existing ones are no error.
    virtual void MkPath(const std::string& path) = 0;
    /// Removes the folder with all it holds; a missing one is no error.
    virtual void RmDir(const std::string& path) = 0;
    /// Gives the credential back to the provider, where there is a way, and forgets it.
    virtual void DropToken() = 0;
    /// Removes what killed uploads below the folder `path` left that have not moved for more than
    /// `hours` (-1: of any age); how many. Does nothing where the provider itself forgets them.
    virtual int AbortStale(const std::string& path, int hours);

protected:
    Cloud() = default;
};

/// What the clients of the providers are for those who use them.
class CloudClient : public Cloud {
public:
    void Get(const std::string& path, std::ostream& out) final;
    int Put(const std::string& path, std::istream& in, const std::string& type) final;
    void List(const std::string& path, std::vector<std::string>& out) final;
    void Delete(const std::string& path) final;
    void MkPath(const std::string& path) final;
    void RmDir(const std::string& path) final;
    void DropToken() final;
    int AbortStale(const std::string& path, int hours) final;

protected:
    explicit CloudClient(std::unique_ptr<Cloud> provider) : provider_(std::move(provider)) {}

private:
    const std::unique_ptr<Cloud> provider_;
};

}  // namespace vel_rpc
