# fish completion for cloud_image. Made by script/commands.
complete -c cloud_image -f
complete -c cloud_image -n '__fish_use_subcommand' -a make -d 'make a firmware image'
complete -c cloud_image -n '__fish_use_subcommand' -a info -d 'tell what an image holds'
complete -c cloud_image -n '__fish_use_subcommand' -l help -d 'print the usage'
complete -c cloud_image -n '__fish_use_subcommand' -l version -d 'print the version'
complete -c cloud_image -n '__fish_seen_subcommand_from make' -l version -x -d 'version that the image holds'
complete -c cloud_image -n '__fish_seen_subcommand_from make' -l size -x -d 'bytes of a pattern'
complete -c cloud_image -n '__fish_seen_subcommand_from make' -l payload -r -F -d 'file that is the payload'
complete -c cloud_image -n '__fish_seen_subcommand_from make' -s o -r -F -d 'file to make'
complete -c cloud_image -n '__fish_seen_subcommand_from info' -l json -d 'as one line of JSON'
complete -c cloud_image -n '__fish_seen_subcommand_from info' -F -d 'image'
