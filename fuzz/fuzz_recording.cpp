// The MCAP reader on arbitrary bytes: opening (summary or scan), then every chunk,
// message index, message, attachment and metadata record it indexes, and the
// data section's CRC. Clear errors only: no crash, no read outside the input, no
// allocation beyond what the input could hold.
#include <cstdint>
#include <cstddef>

#include "recording/mcap_reader.h"

using namespace qvrec::mcap;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Reader reader;
    if (!reader.Open(MemorySource(data, size), "fuzz.mcap").ok()) return 0;
    LoadedChunk chunk;
    for (size_t i = 0; i < reader.Chunks().size(); ++i) {
        if (!reader.LoadChunk(i, chunk).ok()) continue;
        for (const auto& kv : reader.Channels()) {
            MessageIndex index;
            if (!reader.ReadMessageIndex(i, kv.first, index).ok()) continue;
            for (const auto& e : index.records) {
                Message m;
                (void)reader.ReadMessage(chunk, e.second, m);
            }
        }
    }
    for (const AttachmentIndex& a : reader.Attachments()) {
        Attachment x;
        (void)reader.ReadAttachment(a, x);
    }
    for (const MetadataIndex& m : reader.MetadataIndexes()) {
        Metadata x;
        (void)reader.ReadMetadata(m, x);
    }
    (void)reader.VerifyDataSection();
    return 0;
}
