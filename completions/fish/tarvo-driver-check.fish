# The options, and the PCI devices that are there.
complete -c tarvo-driver-check -f
complete -c tarvo-driver-check -l device -x -a '(ls /sys/bus/pci/devices)' -d 'a PCI device that may be used'
complete -c tarvo-driver-check -l absent-device -x -d 'an address without a device'
complete -c tarvo-driver-check -l json -d 'print a JSON object'
complete -c tarvo-driver-check -l help -d 'print how to use it'
complete -c tarvo-driver-check -l version -d 'print the version'
