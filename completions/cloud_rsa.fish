# fish completion for cloud_rsa. Made by script/commands.
complete -c cloud_rsa -f
complete -c cloud_rsa -n '__fish_use_subcommand' -a encrypt -d 'encrypt a text with the device key'
complete -c cloud_rsa -n '__fish_use_subcommand' -a decrypt -d 'decrypt a cipher text'
complete -c cloud_rsa -n '__fish_use_subcommand' -a public -d 'print the public key as PEM'
complete -c cloud_rsa -n '__fish_use_subcommand' -l help -d 'print the usage'
complete -c cloud_rsa -n '__fish_use_subcommand' -l version -d 'print the version'
