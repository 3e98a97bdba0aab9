-- The Bluetooth monitor loads the logind module, which needs D-Bus and makes WirePlumber
-- exit on a machine without one.
bluez_monitor.enabled = false
bluez_monitor.properties["with-logind"] = false
