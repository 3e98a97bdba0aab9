-- No sound cards, cameras or portal on a headless test machine: none of these monitors
-- would find anything, and the portal needs a D-Bus session that does not exist.
alsa_monitor.enabled = false
v4l2_monitor.enabled = false
libcamera_monitor.enabled = false
default_access.properties["enable-flatpak-portal"] = false
