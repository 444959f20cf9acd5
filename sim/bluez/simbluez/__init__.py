"""A simulated BlueZ: the org.bluez D-Bus API over the focuser simulator's units."""
