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

# Whether the help calls what the command takes first by one of these names.
function __tarvoctl_takes
    set -l words (commandline -opc)
    test (count $words) -ge 2; or return
    set -l first (tarvoctl $words[2] --help 2>/dev/null | sed -n 's/^Usage: [^]]*\] \[*\([A-Z]*\).*/\1/p')
    contains -- "$first" $argv
end

complete -c tarvoctl -n 'test (count (commandline -opc)) -eq 1' -f -a '(__tarvoctl_commands)'
complete -c tarvoctl -n 'test (count (commandline -opc)) -ge 2; and string match -q -- "-*" (commandline -ct)' -f -a '(__tarvoctl_options)'
complete -c tarvoctl -n '__tarvoctl_takes NAME' -f -a '(__tarvoctl_chunks)'
complete -c tarvoctl -n '__tarvoctl_takes DEVICE' -f -a '(__tarvoctl_devices)'
complete -c tarvoctl -n 'not __tarvoctl_takes FILE A' -f
complete -c tarvoctl -l sort -n '__fish_seen_subcommand_from list' -x -a '(__tarvoctl_choices sort)'
complete -c tarvoctl -l prot -n '__fish_seen_subcommand_from iommu-map' -x -a '(__tarvoctl_choices prot)'
for option in area svg backup
    complete -c tarvoctl -l $option -r -F
end
