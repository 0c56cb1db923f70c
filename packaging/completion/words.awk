        # The subcommands and the long options of a help text.
        /^[^ ]/ { subcommands = /^Subcommands:/ }
        subcommands && /^  [a-z]/ { print $1 }
        /^ +-/ {
            sub(/^ +/, "")
            sub(/  .*/, "")
            for (count = split($0, part, /[ ,=[]+/); count > 0; count--)
                if (part[count] ~ /^--./) print part[count]
        }
