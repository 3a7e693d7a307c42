// The per-user temporary folder: $TMPDIR/sorva-<uid>, else /tmp/sorva-<uid>,
// created with mode 0700. An existing folder is used only if it is a real
// directory (not a symbolic link) owned by this user, and its mode is set to
// 0700 if it differs; otherwise it is refused and the reason goes to standard
// error once.
// Thread-safe; the result is computed once per process (tests can override the
// base folder with setTemporaryBaseForTesting before first use).
#pragma once

#include <filesystem>
#include <optional>

namespace sorva {

// The folder, or nothing if it cannot be used safely.
std::optional<std::filesystem::path> perUserTemporaryDirectory();

// Checks or creates base/sorva-<uid> without caching; the building block of
// perUserTemporaryDirectory, exposed for tests. On refusal, reason says why.
std::optional<std::filesystem::path> preparePerUserDirectory(const std::filesystem::path& base, std::string* reason);

} // namespace sorva
