        # The subcommands and the options of a help text; or, behind an option that takes one of several
        # words, these. last: the word in front.
        /^[^ ]/ { subcommands = /^Subcommands:/ }
        subcommands && /^  [a-z]/ { words = words $1 "\n" }
        /^ +-/ {
            sub(/^ +/, "")
            sub(/  .*/, "")
            count = split($0, part, /[ ,=[]+/)
            for (at = 1; at <= count; at++) {
                if (part[at] ~ /^-./) words = words part[at] "\n"
                if (part[at] ~ /^-/ && part[at] == last) choice = part[count]
            }
        }
        END {
            count = split(choice, part, "|")
            for (at = 1; count > 1 && at <= count; at++)
                if (part[at] ~ /^[a-z]/) values = values part[at] "\n"
            printf "%s", values != "" ? values : words
        }
