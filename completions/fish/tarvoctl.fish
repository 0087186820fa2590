# Commands and options are asked of the tool itself; chunks and devices are those that are there
# now, which waits for the lock a fifth of a second at most.

function __tarvoctl_commands
    tarvoctl --help 2>/dev/null | sed -n 's/^  \([a-z][a-z-]*\)  *\(.*\)/\1\t\2/p'
end

function __tarvoctl_options
    set -l words (commandline -opc)
    tarvoctl $words[2] --help 2>/dev/null | grep -oE -- '^  (-[A-Za-z],)?--[a-z-]+|--[a-z-]+=[a-z]+' | grep -oE -- '--[a-z=-]+'
end

# The values of an option that takes some words alone: its help has them in braces.
function __tarvoctl_choices
    set -l words (commandline -opc)
    tarvoctl $words[2] --help 2>/dev/null | sed -nE "s/^  (-[A-Za-z],)?--$argv[1] [A-Z]+:\{([a-z,]+)\}.*/\2/p" | string split ,
end

function __tarvoctl_chunks
    tarvoctl list --columns name --no-header --timeout 0.2 2>/dev/null | sort -u
end

function __tarvoctl_devices
    tarvoctl devices --timeout 0.2 2>/dev/null | awk 'NR > 1 && NF == 4 { print $2 }'
end

function __tarvoctl_takes
    set -l words (commandline -opc)
    test (count $words) -ge 2; and contains -- $words[2] $argv
end

complete -c tarvoctl -n 'test (count (commandline -opc)) -eq 1' -f -a '(__tarvoctl_commands)'
complete -c tarvoctl -n 'test (count (commandline -opc)) -ge 2; and string match -q -- "-*" (commandline -ct)' -f -a '(__tarvoctl_options)'
complete -c tarvoctl -n '__tarvoctl_takes show who alloc free read write fill' -f -a '(__tarvoctl_chunks)'
complete -c tarvoctl -n '__tarvoctl_takes register unregister iommu-map iommu-unmap' -f -a '(__tarvoctl_devices)'
complete -c tarvoctl -n '__tarvoctl_takes list devices lock leaks map top watch doctor limits find translate dump' -f
complete -c tarvoctl -l sort -n '__tarvoctl_takes list' -x -a '(__tarvoctl_choices sort)'
complete -c tarvoctl -l prot -n '__tarvoctl_takes iommu-map' -x -a '(__tarvoctl_choices prot)'
for option in area svg backup
    complete -c tarvoctl -l $option -r -F
end
