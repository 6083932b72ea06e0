"""What the platform's init takes from the service's rc file: its directories and command line."""

TOOL = "/vendor/bin/tarnix"
# Path and mode, made on userdata in this order before the service starts.
DIRECTORIES = (("/data/vendor", 0o771), ("/data/vendor/ramdump", 0o771))
ARGUMENTS = ["-s", "/data/vendor/ramdump/ramdump.map"]
