# Stand-in for the board's /lib/functions.sh: what init scripts read their UCI configuration with
# (config_load, config_foreach, config_get, config_get_bool), over /etc/config files of the plain
# form "config TYPE 'NAME'" / "option KEY 'VALUE'", one statement a line.

unquote() {
	local v="$1"
	case "$v" in \'*\') v=${v#\'}; v=${v%\'} ;; \"*\") v=${v#\"}; v=${v%\"} ;; esac
	printf '%s' "$v"
}

# Names become parts of variable names: only those UCI allows.
is_name() { case "$1" in '' | *[!A-Za-z0-9_]*) return 1 ;; esac; }

config_load() {
	local keyword key value section="" count=0 v
	CONFIG_SECTIONS=""
	while read -r keyword key value; do
		case "$keyword" in
			config)
				count=$((count + 1))
				section=$(unquote "$value")
				[ -n "$section" ] || section="cfg$count"
				is_name "$section" || { section=""; continue; }
				CONFIG_SECTIONS="$CONFIG_SECTIONS $section"
				v=$(unquote "$key")
				eval "CONFIG_${section}_TYPE=\$v"
				;;
			option)
				is_name "$section" && is_name "$key" || continue
				v=$(unquote "$value")
				eval "CONFIG_${section}_${key}=\$v"
				;;
		esac
	done <"/etc/config/$1"
}

config_get() {
	local v
	eval "v=\${CONFIG_${2}_${3}:-}"
	[ -n "$v" ] || v="$4"
	eval "$1=\$v"
}

config_get_bool() {
	local v
	config_get v "$2" "$3" "$4"
	case "$v" in
		1 | on | true | yes | enabled) v=1 ;;
		0 | off | false | no | disabled) v=0 ;;
		*) v="$4" ;;
	esac
	eval "$1=\$v"
}

config_foreach() {
	local function="$1" type="$2" section t
	for section in $CONFIG_SECTIONS; do
		eval "t=\$CONFIG_${section}_TYPE"
		[ -z "$type" ] || [ "$t" = "$type" ] && "$function" "$section"
	done
}
