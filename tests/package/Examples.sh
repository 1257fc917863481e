# Sourced by the scripts that build examples/.

# RunExamples FOLDER Shared|Static: runs each program of FOLDER, which checks itself and says something, and makes sure
# that it was linked as it should be.
RunExamples() {
    local program needed count=0
    for program in "$1"/*; do
        [ -f "$program" ] && [ -x "$program" ] || continue
        count=$((count + 1))
        echo "--- $(basename "$program")"
        "$program" | tee "$1/output.txt"
        [ "${PIPESTATUS[0]}" -eq 0 ] && [ -s "$1/output.txt" ] || { echo "$program failed"; return 1; }
        needed=$(readelf -d "$program" | grep -c 'NEEDED.*libraster' || true)
        case "$2:$needed" in
            Shared:1 | Static:0) ;;
            *) echo "$program isn't linked to the $2 library"; return 1 ;;
        esac
    done
    [ "$count" -gt 0 ] || { echo "no example was built"; return 1; }
}
