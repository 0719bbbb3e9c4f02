# fish completion for kxcc-tap. Made by script/commands.
complete -c kxcc-tap -f
complete -c kxcc-tap -l socket -r -F -d 'the broker\'s socket'
complete -c kxcc-tap -l wait -d 'wait until there is a socket'
complete -c kxcc-tap -l limit -x -d 'end at this size in KiB'
complete -c kxcc-tap -l restore -d 'give back what a killed tap has left'
complete -c kxcc-tap -F -d 'journal to write'
complete -c kxcc-tap -l help -d 'print the usage'
complete -c kxcc-tap -l version -d 'print the version'
