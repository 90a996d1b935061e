# What scripts/setup and scripts/windows install with; sourced by both, with `set -euo pipefail`.

say() { printf '%s: %s\n' "${0##*/}" "$*"; }
fail() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"
    elif command -v sudo >/dev/null 2>&1; then sudo "$@"
    else fail "'$*' needs root: run as root or install sudo"
    fi
}

# Runs a command quietly; what it printed is shown only when it fails.
quiet() {
    local log
    log="$(mktemp)"
    if ! "$@" >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        rm -f "$log"
        fail "failed: $*"
    fi
    rm -f "$log"
}

missing_of() {  # the packages named that are not installed, one per line
    local name
    for name in "$@"; do
        grep -qxF "$name" <<<"$installed" || printf '%s\n' "$name"
    done
}

apt_lists_are_fresh=no
apt_install() {
    [ $# -gt 0 ] || return 0
    if [ "$apt_lists_are_fresh" = no ]; then
        quiet as_root apt-get -o DPkg::Lock::Timeout=600 update
        apt_lists_are_fresh=yes
    fi
    say "installing $*"
    quiet as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -o DPkg::Lock::Timeout=600 install -y --no-install-recommends "$@"
}

command -v dpkg-query >/dev/null 2>&1 || fail "needs a Debian system (dpkg and apt)"
installed="$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' | sed -nE 's/^(installed|triggers-[a-z]+) //p')"

# ---- sources of other suites -------------------------------------------------------------------

# Prints the entries of apt's own configuration that serve this system's suite, as one-line
# entries of type $1 (deb or deb-src) for the suite $2. Trust settings go along.
entries_of_suite() {
    local type="$1" suite="$2" own file
    own="$(. /etc/os-release && printf '%s' "${VERSION_CODENAME:-}")"
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ -r "$file" ] || continue
        awk -v type="$type" -v own="$own" -v suite="$suite" '
            $1 != "deb" && $1 != "deb-src" { next }
            {
                line = $0
                sub(/[[:space:]]*#.*$/, "", line)
                sub(/^[^[:space:]]+[[:space:]]+/, "", line)
                options = ""
                if (line ~ /^\[/) {
                    options = substr(line, 1, index(line, "]")) " "
                    line = substr(line, index(line, "]") + 1)
                    sub(/^[[:space:]]+/, "", line)
                }
                split(line, field, /[[:space:]]+/)
                if (field[2] == own) print type " " options field[1] " " suite " main"
            }' "$file"
    done
    for file in /etc/apt/sources.list.d/*.sources; do
        [ -r "$file" ] || continue
        awk -v type="$type" -v own="$own" -v suite="$suite" '
            function flush(   n, i, words, here, options) {
                n = split(value["suites"], words, /[[:space:]]+/)
                for (i = 1; i <= n; ++i) if (words[i] == own) here = 1
                if (here && tolower(value["enabled"]) != "no") {
                    # An inline key (several lines) has no one-line form; such an entry is left out.
                    if (value["signed-by"] ~ /^\//) options = options " signed-by=" value["signed-by"]
                    if (value["trusted"] != "") options = options " trusted=" value["trusted"]
                    if (options != "") options = "[" substr(options, 2) "] "
                    n = split(value["uris"], words, /[[:space:]]+/)
                    for (i = 1; i <= n; ++i)
                        if (words[i] != "") print type " " options words[i] " " suite " main"
                }
                delete value
                key = ""
            }
            /^#/ { next }
            /^[[:space:]]*$/ { flush(); next }
            /^[[:space:]]/ { if (key != "") value[key] = value[key] $0; next }
            {
                key = tolower(substr($0, 1, index($0, ":") - 1))
                text = substr($0, index($0, ":") + 1)
                gsub(/^[[:space:]]+|[[:space:]]+$/, "", text)
                value[key] = text
            }
            END { flush() }' "$file"
    done
}

# apt with nothing but suite $1's entries, its lists kept in $work; the rest of the arguments are
# apt-get's. The system's own lists and sources are neither read nor changed.
apt_of_suite() {
    local suite="$1"
    shift
    local home="$work/apt-$suite"
    if [ ! -d "$home" ]; then
        mkdir -p "$home/lists/partial" "$home/cache/archives/partial"
        { entries_of_suite deb "$suite"; entries_of_suite deb-src "$suite"; } | sort -u \
            >"$home/sources.list"
        [ -s "$home/sources.list" ] || fail "apt's configuration names no source of this suite"
        # As root, apt hands the download to its own user, who must be able to write here.
        chmod -R a+rwX "$work"
        apt_of_suite "$suite" update
    fi
    quiet apt-get \
        -o Dir::Etc::sourcelist="$home/sources.list" -o Dir::Etc::sourceparts=/dev/null \
        -o Dir::State::Lists="$home/lists" -o Dir::Cache="$home/cache" \
        -o Dir::Etc::preferences=/dev/null -o Dir::Etc::preferencesparts=/dev/null \
        -o APT::Default-Release= -o Acquire::Languages=none "$@"
}
