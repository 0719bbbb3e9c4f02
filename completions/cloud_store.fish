# fish completion for cloud_store. Made by script/commands.
complete -c cloud_store -f
complete -c cloud_store -n '__fish_use_subcommand' -a dump -d 'all records as JSON'
complete -c cloud_store -n '__fish_use_subcommand' -a get -d 'a record as JSON'
complete -c cloud_store -n '__fish_use_subcommand' -a set -d 'change members of a record'
complete -c cloud_store -n '__fish_use_subcommand' -a clear -d 'clear a record, or all'
complete -c cloud_store -n '__fish_use_subcommand' -l help -d 'print the usage'
complete -c cloud_store -n '__fish_use_subcommand' -l version -d 'print the version'
complete -c cloud_store -n '__fish_seen_subcommand_from get' -a 'login upgrade-time device-status upgrade-info device-info account' -d 'record'
complete -c cloud_store -n '__fish_seen_subcommand_from set' -a 'login upgrade-time device-status upgrade-info device-info account' -d 'record'
complete -c cloud_store -n '__fish_seen_subcommand_from clear' -a 'login upgrade-time device-status upgrade-info device-info account' -d 'record'
