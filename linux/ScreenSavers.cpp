#include "ScreenSavers.h"

#include <string>

ScreenSavers::ScreenSavers(BusConnection& bus) {
    // From any object: desktops do not agree whether it is /ScreenSaver or named in full.
    for (const std::string name : {"org.freedesktop.ScreenSaver", "org.gnome.ScreenSaver"}) {
        bus.onSignal("interface='" + name + "',member='ActiveChanged'",
                     [this](sd_bus_message* message) {
                         int active = 0;
                         if (sd_bus_message_read(message, "b", &active) > 0 && active != 0)
                             emit activated();
                     });
    }
}
