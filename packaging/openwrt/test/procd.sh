# Stand-in for the board's procd and its /lib/functions/procd.sh. The procd_* calls collect each
# instance's definition; closing the service starts the instances that are new or whose definition
# changed, and stops those no longer defined. State: /var/run/procd/SERVICE/INSTANCE/ with the
# definition, the pid and the instance's output.
PROCD_STATE=/var/run/procd

procd_open_service() {
	procd_service=$1
	procd_defined=""
	procd_count=0
	mkdir -p "$PROCD_STATE/$procd_service"
}

procd_open_instance() {
	procd_count=$((procd_count + 1))
	procd_instance=${1:-instance$procd_count}
	procd_command=""
	procd_env=""
	procd_definition=""
}

# Arguments are kept as words: enough for commands and variables without blanks.
procd_set_param() {
	local key=$1
	shift
	case "$key" in
		command) procd_command="$*" ;;
		env) procd_env="$procd_env $*" ;;
	esac
	procd_definition="$procd_definition$key $*;"
}

procd_add_reload_trigger() {
	echo "$*" >"$PROCD_STATE/$procd_service/reload-triggers"
}

procd_running() {
	[ -f "$1/pid" ] && kill -0 "$(cat "$1/pid")" 2>/dev/null
}

# SIGTERM, then SIGKILL after 5 s, as procd stops an instance.
procd_stop_instance() {
	local dir=$1 pid tries=50
	procd_running "$dir" || { rm -f "$dir/pid"; return 0; }
	pid=$(cat "$dir/pid")
	kill -TERM "$pid"
	while kill -0 "$pid" 2>/dev/null && [ $tries -gt 0 ]; do
		sleep 0.1
		tries=$((tries - 1))
	done
	kill -0 "$pid" 2>/dev/null && kill -KILL "$pid"
	rm -f "$dir/pid"
}

procd_close_instance() {
	local dir="$PROCD_STATE/$procd_service/$procd_instance"
	procd_defined="$procd_defined $procd_instance "
	mkdir -p "$dir"
	if procd_running "$dir" && [ "$(cat "$dir/definition")" = "$procd_definition" ]; then
		return 0
	fi
	procd_stop_instance "$dir"
	printf '%s' "$procd_definition" >"$dir/definition"
	env $procd_env $procd_command </dev/null >>"$dir/output" 2>&1 &
	echo $! >"$dir/pid"
}

procd_close_service() {
	local dir
	for dir in "$PROCD_STATE/$procd_service"/*/; do
		[ -d "$dir" ] || continue
		case "$procd_defined" in *" $(basename "$dir") "*) ;; *) procd_stop_instance "$dir" ;; esac
	done
}

procd_kill() {
	local dir
	for dir in "$PROCD_STATE/$1"/*/; do
		[ -d "$dir" ] && procd_stop_instance "$dir"
	done
}
