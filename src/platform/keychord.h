// Key chords for the application in front: Control+Alt+letter through one virtual keyboard.
#pragma once

namespace brakwell::platform {

enum class ChordLetter { Z, Y };

// Posts Control+Alt+letter: Control and Alt go down, the letter goes down and up, then Control
// and Alt come up in that order. The virtual keyboard is made on the first call and kept for the
// library's life. Returns nullptr when posted, else why not (for the caller's one log line); a
// keyboard that could not be made is tried again on the next call. Safe from any thread: a
// second caller waits until the first chord is complete.
const char* post_control_alt_chord(ChordLetter letter);

}  // namespace brakwell::platform
