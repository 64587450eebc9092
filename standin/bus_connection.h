#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>

/// What all users of the device's bus share.
namespace kbus {

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
struct FreeError {
  void operator()(GError* error) const { g_error_free(error); }
};
struct UnrefVariant {
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
};

using Connection = std::unique_ptr<GDBusConnection, Unref>;
using Error = std::unique_ptr<GError, FreeError>;
using Variant = std::unique_ptr<GVariant, UnrefVariant>;

/// The time limit of every call.
inline constexpr int callTimeoutMilliseconds = 10000;

/// Connects to the device's bus; null with `error` set when there is none or `cancellable`, which may be
/// null, is cancelled meanwhile.
[[nodiscard]] Connection connect(GCancellable* cancellable, Error& error);

/// Whether a name goes over to a later claimant that shares it too, and comes back when that is gone.
enum class Sharing { none, withLaterClaimants };

/// Claims a name. False, with `error` set unless another owns it.
[[nodiscard]] bool claimName(GDBusConnection* connection, const char* name, Sharing sharing, Error& error);

/// The path of the object that a dotted name stands for: "/com/qorvex" for "com.qorvex".
[[nodiscard]] std::string objectPath(const std::string& dottedName);

}  // namespace kbus
