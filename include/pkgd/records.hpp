// The records pkgd keeps about packages: the package, its deployment unit, its execution units or
// the execution environment it provides, and a queued operation. Record files on disk and the
// bus replies are projections of these.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pkgd {

// A text field with the capacity of a char[Size] filled by a bounded copy: it holds at most
// Size - 1 characters and longer input is cut silently (at the first NUL as well). Stored as a
// std::string so an empty or short field costs little.
template <std::size_t Size>
class FixedText {
public:
    static constexpr std::size_t kMaxLen = Size - 1;

    FixedText() = default;
    FixedText(std::string_view s) { assign(s); }  // NOLINT: implicit on purpose, like a copy
    FixedText& operator=(std::string_view s) {
        assign(s);
        return *this;
    }
    void assign(std::string_view s) {
        s = s.substr(0, s.find('\0'));
        s_.assign(s.substr(0, kMaxLen));
    }
    void clear() { s_.clear(); }

    std::string_view view() const { return s_; }
    const std::string& str() const { return s_; }
    const char* c_str() const { return s_.c_str(); }
    bool empty() const { return s_.empty(); }
    std::size_t size() const { return s_.size(); }
    operator std::string_view() const { return s_; }  // NOLINT

    friend bool operator==(const FixedText& a, std::string_view b) { return a.s_ == b; }
    friend bool operator==(const FixedText& a, const FixedText& b) { return a.s_ == b.s_; }

private:
    std::string s_;
};

// A text that may be absent (a null heap string in the record files' terms).
using OptText = std::optional<std::string>;

enum PkgStatus : std::int32_t {
    PKG_STATUS_NEW = 0,
    PKG_STATUS_DOWNLOADING = 1,
    PKG_STATUS_DOWNLOADED = 2,
    PKG_STATUS_INSTALLING = 3,
    PKG_STATUS_INSTALLED = 4,  // reported "Running" while one of its files is a live executable
    PKG_STATUS_UPDATING = 5,
    PKG_STATUS_UNINSTALLING = 9,
};

enum PkgType : std::int32_t {
    PKGTYPE_PACKAGE = 0,  // brings execution units (init scripts)
    PKGTYPE_EE = 1,       // provides an execution environment
};

enum OperationType : std::int32_t {
    OPERATION_INSTALL = 0,
    OPERATION_UPDATE = 1,
    OPERATION_REMOVE = 2,
};

// The deployment unit of a package. Field names are the keys of its record file.
struct du_info {
    std::int32_t index = 0;  // data-model instance number; record file name; catalog index
    std::int32_t pkgtype = PKGTYPE_PACKAGE;
    FixedText<64> uuid;
    FixedText<64> version;
    OptText name;
    OptText vendor;
    std::uint8_t resolved = 0;
    std::uint8_t enabled = 0;
    OptText description;
    OptText files;  // every installed path followed by ";"
    OptText dependency;
    OptText section;
    OptText license;
    OptText licensefiles;
    OptText architecture;
    OptText provides;
    std::uint32_t size = 0;
    std::uint32_t installedsize = 0;
    FixedText<64> time;
};

// One execution unit: an init script the package installed.
struct eu_info {
    std::int32_t index = 0;
    OptText euid;
    OptText name;  // the script's file name under /etc/init.d/
};

// The execution environment an environment package provides.
struct ee_info {
    std::int32_t index = 0;
    OptText name;
    FixedText<64> version;
    OptText vendor;
    OptText type;
    FixedText<128> file;  // the environment's init script
};

// A package known to the daemon.
struct pkg_info {
    std::string id;  // names the package record file and ends the per-package object name
    std::int32_t status = PKG_STATUS_NEW;
    FixedText<1024> url;  // protocol "://" address [":" port] "/" resource
    FixedText<256> username;
    FixedText<256> password;
    FixedText<64> version;  // version asked for by the pending operation; empty = any
    du_info du;
    std::vector<eu_info> eu;  // in the order found or read back
    std::optional<ee_info> ee;
    std::int32_t disable_autostart = 0;
    std::string object_name;  // the per-package bus object's name; the package's bus identity
};

// The worker process running an operation. Shared between the queue and the loop's exit
// callback, so a cancelled operation's handle stays valid until its worker has been reaped.
struct worker_proc {
    pid_t pid = 0;
    bool pending = false;  // the loop still watches it
};

// A queued install, update or uninstall request.
struct operation_info {
    std::int32_t request_id = 0;
    std::int32_t operate_id = 0;
    std::int32_t operate_mid = 0;
    std::int32_t operate_duid = 0;
    std::int32_t type = OPERATION_INSTALL;
    FixedText<64> time;  // when it was queued
    // The package operated on. Shared with the registry, so a waiting operation never refers
    // to a released record.
    std::shared_ptr<pkg_info> pkg;
    std::shared_ptr<worker_proc> proc;  // null while waiting
    std::int32_t seq = 0;               // its journal entry's number; 0 while not journaled
    // Non-zero once a worker died before recording the result: the operation then runs again as
    // its recovery, which brings the package back to a consistent state and reports this fault.
    std::int32_t recover_fault = 0;
    std::int32_t recoveries = 0;  // recovery workers that died as well
    bool cancelled = false;       // its worker was killed by a cancel: the recovery reports 9001
    // The worker's breadcrumb: it reached the step where opkg changes the package.
    bool opkg_reached = false;
    // The execution-unit instances of its package when it was accepted and those its worker
    // created, as the journal keeps them: a recovery finds units whose record files are gone
    // or not yet written.
    std::vector<std::int32_t> eu_instances;
};

// Releasing unit data. The deployment unit keeps its fixed fields (index, uuid, version, ...)
// and loses its optional texts, so it can be refilled from its file.
void package_data_free_du_info(du_info& du);
void package_data_free_eu_info(pkg_info& pkg);  // drops every execution unit
void package_data_free_ee_info(pkg_info& pkg);  // drops the execution environment

// The text of a status value other than PKG_STATUS_INSTALLED ("New" for unknown values).
std::string_view package_status_text(std::int32_t status);

}  // namespace pkgd
