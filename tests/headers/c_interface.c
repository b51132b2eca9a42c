/* The C interface as C89 has it: no other header before it, every declaration a prototype. */
#include <velmora/velmora.h>

unsigned int velmora_header_check_c(void)
{
    velmora_segment_options options = VELMORA_SEGMENT_OPTIONS;
    return options.block_bytes + (unsigned int)sizeof(velmora_block_record);
}
