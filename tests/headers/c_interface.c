/* The C interface as C89 has it: no other header before it, every declaration a prototype. */
#include <velmora/velmora.h>

unsigned int velmora_header_check_c(void)
{
    velmora_segment_spec spec = VELMORA_SEGMENT_SPEC;
    return spec.block_bytes + (unsigned int)sizeof(velmora_block_record);
}
