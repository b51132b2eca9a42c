/* A C application outside the project's tree, on the controller that $VELMORA_MM_DEVICE names: it makes a segment, and finds in
   a second view what it wrote through the first. */
#include <stdio.h>
#include <string.h>

#include <velmora/velmora.h>
#include <velmora_mm/velmora_mm.h>

static int fail(const char* what)
{
    fprintf(stderr, "c_application: %s: %s\n", what, velmora_last_error());
    return 1;
}

static int compare_views(const velmora_block* block)
{
    velmora_mapping *one = NULL, *other = NULL;
    size_t bytes = 0;
    int same;

    if (velmora_map(block, 0, 65536, VELMORA_CACHED, &one) != VELMORA_OK ||
        velmora_map(block, 0, 65536, VELMORA_CACHED, &other) != VELMORA_OK)
        return fail("views");
    bytes = velmora_mapping_size(one);
    memset(velmora_mapping_data(one), 0x5A, bytes);
    same = memcmp(velmora_mapping_data(one), velmora_mapping_data(other), bytes) == 0;
    velmora_unmap(one);
    velmora_unmap(other);
    if (same)
        printf("c_application: %u-bit, %u bytes\n", (unsigned)(8 * sizeof(void*)), (unsigned)bytes);
    return same ? 0 : 1;
}

int main(void)
{
    velmora_device* device = NULL;
    velmora_segment* bands = NULL;
    velmora_block* block = NULL;
    velmora_segment_options options = VELMORA_SEGMENT_OPTIONS;
    int status;

    options.name = "BAND";
    options.bytes = 1 << 20;
    options.owner_bits = 8;
    if (velmora_open(NULL, &device) != VELMORA_OK || velmora_start_up(device, MM_SM_BKUP_OK, 0) != VELMORA_OK)
        return fail("the device");
    if (velmora_segment_create(device, &options, &bands) != VELMORA_OK ||
        velmora_allocate(bands, 65536, 1, &block) != VELMORA_OK)
        return fail("a block");
    status = compare_views(block);
    velmora_block_close(block);
    velmora_segment_close(bands);
    velmora_close(device);
    return status;
}
