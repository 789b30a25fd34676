// SPDX-License-Identifier: GPL-3.0-or-later
// Owners for sd-bus objects, shared by the parts of Larimo that talk D-Bus through libsystemd.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace larimo {

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using BusPointer = std::unique_ptr<sd_bus, BusDeleter>;

struct MessageDeleter {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePointer = std::unique_ptr<sd_bus_message, MessageDeleter>;

/// An sd_bus_error freed when the scope ends, however the call went.
class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&m_error); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    sd_bus_error* Get() { return &m_error; }
    bool Is(const char* name) const { return sd_bus_error_has_name(&m_error, name) != 0; }
    /// The error's text; empty when the call failed without one (the result code tells then).
    const char* Message() const { return m_error.message != nullptr ? m_error.message : ""; }

private:
    sd_bus_error m_error{nullptr, nullptr, 0};
};

} // namespace larimo
