/* A page in C: found or created, stored, seen by its owner, given back. */
#include <stdio.h>
#include <string.h>

#include <velmora/velmora.h>

static int fail(const char* what)
{
    fprintf(stderr, "pages: %s: %s\n", what, velmora_last_error());
    return 1;
}

static int store(velmora_segment* pages, unsigned int owner)
{
    velmora_block* block = NULL;
    velmora_mapping* view = NULL;
    velmora_owner_usage usage[8];
    size_t count = 0, i;
    int code = velmora_allocate(pages, 65536, owner, &block);

    if (code == VELMORA_NO_ROOM) {
        puts("there is no room for the page");
        return 0;
    }
    if (code != VELMORA_OK || velmora_map(block, 0, 65536, VELMORA_CACHED, &view) != VELMORA_OK) {
        velmora_block_close(block);
        return fail("a block");
    }
    memset(velmora_mapping_data(view), 0x55, velmora_mapping_size(view));
    if (velmora_owners(pages, usage, 8, &count) == VELMORA_OK)
        for (i = 0; i < count && i < 8; ++i)
            printf("owner %u has %u blocks\n", usage[i].owner, usage[i].blocks);
    velmora_unmap(view);
    velmora_block_close(block); /* releases it */
    return 0;
}

int main(void)
{
    velmora_device* device = NULL;
    velmora_segment* pages = NULL;
    velmora_segment_options options = VELMORA_SEGMENT_OPTIONS;
    unsigned int owners[70];
    int status = 1;

    options.name = "PAGE";
    options.bytes = 1 << 20;
    options.owner_bits = 8;
    if (velmora_owner_ids(8, owners, 70) != 70 || velmora_open(NULL, &device) != VELMORA_OK)
        return fail("the device");
    if (velmora_segment_open_or_create(device, &options, &pages) == VELMORA_OK)
        status = store(pages, owners[0]);
    else
        fail("the segment");
    velmora_segment_close(pages);
    velmora_close(device);
    return status;
}
