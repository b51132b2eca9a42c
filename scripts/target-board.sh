# Reads the description of the emulated controller's board. To be sourced, from the root of the project.
#   BOARD=NAME        tests/target/boards/NAME.conf, or the path of such a file; default: virt
# Beside the description's own names it sets board (the name), AREA_TEXT (the module's parameter) and the function
# board_values, which prints what the programs on the controller read from /etc/board.
# shellcheck shell=sh disable=SC2034
board_file=${BOARD:-virt}
case $board_file in
*/*) ;;
*) board_file=tests/target/boards/$board_file.conf ;;
esac
[ -f "$board_file" ] || {
    echo "no board $board_file; there are: $(cd tests/target/boards && echo *.conf | sed 's/\.conf//g')" >&2
    exit 2
}
board=$(basename "$board_file" .conf)
case $board_file in
/*) ;;
*) board_file=./$board_file ;;
esac
# shellcheck source=/dev/null
. "$board_file"

[ "$((AREA_BYTES))" -ge "$((0x02000000))" ] || {
    echo "$board_file: the tests need an area of at least 32 MiB" >&2
    exit 2
}

board_values() {
    printf 'PAGE_OFFSET=0x%08x\nPHYS_OFFSET=0x%08x\nRAM_BYTES=0x%08x\nAREA_PHYS=0x%08x\nAREA_BYTES=0x%08x\n' \
        "$((PAGE_OFFSET))" "$((PHYS_OFFSET))" "$((RAM_BYTES))" "$((AREA_PHYS))" "$((AREA_BYTES))"
    echo "AT_END=$AT_END"
}
area_start=$((AREA_PHYS - PHYS_OFFSET + PAGE_OFFSET))
AREA_TEXT=$(printf '%08x-%08x' "$area_start" "$((area_start + AREA_BYTES))")
