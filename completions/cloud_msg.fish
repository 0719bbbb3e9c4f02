# fish completion for cloud_msg
complete -c cloud_msg -f
complete -c cloud_msg -n __fish_use_subcommand -s h -d 'print usage'
for line in 'alias	name the device in the cloud' 'bind	bind the owner account' 'check	look for new firmware' \
    'download	fetch the firmware' 'factory	prepare for a factory reset' 'getBindStatus	is an account stored?' \
    'getDevToken	fetch a device token' 'getFwList	store the newest firmware information' \
    'getLogicStatus	connection mode of the broker' 'kickoff	kick clients off' 'login	log an account in' \
    'online	test the link to the cloud' 'passthrough	pass a request through' 'rmuser	remove a user' \
    'setLogicStatus	set the connection mode' 'tmp_bind	bind from the app' 'tmp_unbind	unbind from the app' \
    'unbind	unbind the owner account' 'update	install the fetched firmware'
    set -l parts (string split \t $line)
    complete -c cloud_msg -n __fish_use_subcommand -a $parts[1] -d $parts[2]
end
