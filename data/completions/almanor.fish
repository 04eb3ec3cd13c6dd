# fish completion for almanor: its commands and options, the values of --schedule and --count,
# and the events' ids with their names.

# "ID<tab>NAME" per event, from `almanor events list --json`. In JSON a quote inside a string is
# always escaped, so `{"id":"` starts an object and never comes from a name.
function __almanor_events
    set -l program (commandline -opc)[1]
    command $program events list --json 2>/dev/null |
        grep -oE '\{"id":"[0-9A-F-]+","name":"([^"\\\\]|\\\\.)*"' |
        sed -E 's/\\\\\\\\/\x1f/g; s/\\\\([nrt]|u[0-9a-f]{4})/ /g; s/\\\\"/"/g; s/\x1f/\\\\/g' |
        sed -E 's/^\{"id":"([^"]*)","name":"(.*)"$/\1\t\2/'
end

# The commands and arguments typed so far, without the options and their values.
function __almanor_typed
    set -l skip 0
    for word in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
        else if string match -qr -- '^--(schedule|count|date|name|alias|user|password-command)$' $word
            set skip 1
        else if not string match -q -- '-*' $word
            echo $word
        end
    end
end

# True when exactly these words have been typed.
function __almanor_at
    set -l typed (__almanor_typed)
    test "$typed" = "$argv"
end

# True when the words typed begin with these.
function __almanor_in
    set -l typed (__almanor_typed)
    set -l n (count $argv)
    test (count $typed) -ge $n; and test "$typed[1..$n]" = "$argv"
end

complete -c almanor -f
complete -c almanor -s h -l help -d 'Print the help and exit'
complete -c almanor -n '__almanor_at' -l version -d 'Print the version and exit'

complete -c almanor -n '__almanor_at' -a events -d 'List, add, edit and delete events'
complete -c almanor -n '__almanor_at' -a select -d 'Choose the displayed event'
complete -c almanor -n '__almanor_at' -a status -d "Print the panel's title"
complete -c almanor -n '__almanor_at' -a cloud -d 'Connect to your calendar server, or disconnect'
complete -c almanor -n '__almanor_at' -a sync -d 'Pull from the cloud and push local changes'

complete -c almanor -n '__almanor_at events' -a list -d 'List the events, soonest date first'
complete -c almanor -n '__almanor_at events' -a add -d 'Add an event and print its id'
complete -c almanor -n '__almanor_at events' -a edit -d 'Change an event'
complete -c almanor -n '__almanor_at events' -a delete -d 'Delete an event'
complete -c almanor -n '__almanor_at events' -a export -d 'Write the events as an iCalendar file'
complete -c almanor -n '__almanor_at events' -a import -d 'Add the events of an iCalendar file'
complete -c almanor -n '__almanor_at events export; or __almanor_at events import' -F
complete -c almanor -n '__almanor_at events edit; or __almanor_at events delete' -a '(__almanor_events)'
complete -c almanor -n '__almanor_at events list' -l json -d 'Print one JSON array'
complete -c almanor -n '__almanor_in events edit' -l name -x -d 'New name'
complete -c almanor -n '__almanor_in events add; or __almanor_in events edit' -l date -x \
    -d 'YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS], optionally Z or +HH:MM'
complete -c almanor -n '__almanor_in events add; or __almanor_in events edit' -l alias -x \
    -d 'Shorter text for the panel'
complete -c almanor -n '__almanor_in events add; or __almanor_in events edit' -l schedule -x \
    -a 'none weekly monthly annually' -d 'Recurrence'
complete -c almanor -n '__almanor_in events add; or __almanor_in events edit' -l count -x \
    -a 'standard exclude-weekends friday-before monday-after' -d 'Counting'

complete -c almanor -n '__almanor_at select' -a next -d 'The next upcoming event'
complete -c almanor -n '__almanor_at select' -a random -d 'A random event'
complete -c almanor -n '__almanor_at select' -a rotate -d 'The upcoming events in turn, hourly'
complete -c almanor -n '__almanor_at select' -a '(__almanor_events)'

complete -c almanor -n '__almanor_at status' -l json -d 'Print a JSON object for status bars'

complete -c almanor -n '__almanor_at cloud' -a login -d 'Log in to a CalDAV server'
complete -c almanor -n '__almanor_at cloud' -a logout -d 'Forget the account and its password'
complete -c almanor -n '__almanor_at cloud' -a status -d 'Print the account and what is not yet sent'
complete -c almanor -n '__almanor_in cloud login' -l user -x -a '(__fish_complete_users)' -d 'User name'
complete -c almanor -n '__almanor_in cloud login' -l password-command -x \
    -d 'A command that prints the password'
complete -c almanor -n '__almanor_at cloud status' -l json -d 'Print one JSON object'
