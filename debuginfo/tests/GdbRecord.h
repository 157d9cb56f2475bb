// gdb-multiarch's answers about a fixture, recorded beside it. A test asks with the commands it
// wants answered; the answer comes from the record "<fixture>.gdb-<kind>.txt" when that record holds
// the same commands, else from gdb-multiarch run now. ZEVRA_RECORD_GDB=1 in the environment makes
// every question run gdb and rewrite its record (see fixtures/build_index_records.sh).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace gdbrecord {

// The output of "gdb-multiarch -batch -nx -ex C1 -ex C2 ... FIXTURE.elf", or nothing when there is
// neither a matching record nor a gdb-multiarch to ask.
std::optional<std::string> Ask(const std::string& sFixture, const std::string& sKind,
                               const std::vector<std::string>& Commands);
// The lines of an answer, without their line feeds.
std::vector<std::string> Lines(const std::string& sText);

}  // namespace gdbrecord
