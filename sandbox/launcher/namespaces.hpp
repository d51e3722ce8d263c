// Private namespaces for a sandbox, and joining them from outside.
#pragma once

#include <sys/types.h>

#include <string>

#include "sandbox/status.hpp"

namespace sandbox {

// Moves the caller into a new mount namespace (with propagation to the host cut) and makes its
// next child the first process (PID 1) of a new PID namespace. With `user_namespace`, a new user
// namespace maps the caller's user and group to root first, so that an unprivileged caller may
// mount and chroot inside. The caller must be single-threaded.
Status enter_new_namespaces(bool user_namespace);

// Moves the caller into the user (when different), mount and PID namespaces of `pid`; as with a
// new PID namespace, only the caller's children will live in it. The caller must be
// single-threaded.
Status join_namespaces(pid_t pid);

// "pid:[4026532291]": identifies the namespace of the given kind ("pid", "mnt", ...) that `pid`
// is in; empty when the process does not exist.
std::string namespace_id(pid_t pid, const char* kind);

}  // namespace sandbox
