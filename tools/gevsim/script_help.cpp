// The words that explain the command language.
#include "tools/gevsim/script.h"

namespace gevsim {

std::string scriptHelp()
{
    return R"(Faults of the next commands: WORD [ARGUMENT] [COUNT|always] [COMMAND]
  The count is 1 if it isn't given. COMMAND is readreg, writereg, readmem, writemem, discovery or a code such as
  0x80; without it any command is meant (for short, long and truncate: readmem). A command meets one fault at most,
  the oldest that is for its kind.
    drop                 the command gets lost           drop-ack          it is carried out, its answer gets lost
    delay MS             the answer comes late           duplicate         the answer comes twice
    reorder [wait=MS]    the next COUNT answers (2) come in reverse order, or as many as there are after wait (1000)
    hold                 the answer waits for release    release [N]       lets all of them go, or N
    status CODE          refused, with 0x8007 or busy, access-denied, invalid-address, write-protect, bad-alignment,
                         invalid-parameter, not-implemented, local-problem, msg-mismatch, error
    busy                 status 0x8007                   denied            status 0x8006
    wrong-id             another command's id            ack-code CODE     another acknowledge code
    even                 the command's code, even        foreign           the code of another acknowledge
    pending T            PENDING_ACK of T milliseconds, then the answer, with
                         times=N  so many of them        every=MS  between them, and before the answer (T/2)
                         form=wrong-id | short-length | error-status | truncated    malformed
                         answer=no  never answered
    short BYTES          answer shorter by BYTES         long BYTES        longer
    truncate BYTES       cut short, length field unchanged
    raw HEX              these bytes instead, with the command's id
    none                 nothing, to skip a command
Faults at once
    silence MS|always    deaf and mute                   speak             ends it
    power-cycle [MS]     CCP 0, registers and memory reset, and off for MS
    loss PERCENT [seed=N]  random loss both ways; 0 ends it
    clear                forgets faults, loss and silence, and lets held answers go
Faults of the stream's packets: stream WORD [leader|trailer|data] [COUNT|always] [KEY=VALUE]...
  The count is of packets that are hit; it is 1 if it isn't given, and always with every= or rate=.
    stream lose          never comes                     stream repeat     comes twice, or by=N times more
    stream reorder       comes behind by=N later ones    stream delay MS   comes late
    stream corrupt       comes with form=payload | id | block | format | status | short | long damaged
    stream refuse        resends are answered as not available, always if no count is given
    stream stop          the camera stops here, in the middle of the frame, until acquisition is started again
    stream restart [MS]  the camera loses power here, for MS
                         packet=3-9    only these ids    frame=5-      only pictures from this number on
                         every=N       each N-th         rate=PERCENT  each with this chance; seed=N
                         of=resends | requests | all     not of first sendings, but of resends, PACKETRESENDs, all
Camera
    stream               what was sent                   stream next N     the number of the next picture
    frames [N]           the last N pictures (10)        pulse             a pulse on the line that triggers
    read ADDRESS         write ADDRESS VALUE             info              control, counts, waiting faults
    help                 this text
Examples
    drop 2 readreg       pending 500 times=3 readmem     short 510 readmem     status access-denied always writereg
    stream lose rate=5 seed=7    stream lose packet=10-20 frame=3 always    stream stop packet=100)";
}

} // namespace gevsim
