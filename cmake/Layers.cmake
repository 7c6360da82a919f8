# Which folders of src/ each folder may include from. The layers, from the
# bottom: settings and model (with the note spelling in notation) hold the
# options, files, lattice, ratios and commands, with Qt Core only; tuning
# reads and writes the tuning files of other instruments; sound is the
# engine; scenes keeps the performer's cue lists for it; recording writes
# what it plays to files and renders them again; input, midi and osc
# bring commands in and notes out; display, ui and
# updater are the face; app wires everything together; tools are the command
# line programs. A folder may include from the folders listed here and from
# itself, nothing else (cmake/CheckLayers.cmake enforces it in the tests).
#
# One exception looks up: the lattice (model) connects itself to the
# engine's reports in Arbo::init(PdPlayer*), whose signature the lattice's
# contract fixes; it names the player's header only in arbo.cpp.
set(ARBO_LAYER_settings "")
set(ARBO_LAYER_model settings sound)
set(ARBO_LAYER_notation model settings)
set(ARBO_LAYER_tuning model settings)
set(ARBO_LAYER_sound model settings)
set(ARBO_LAYER_recording model settings sound)
set(ARBO_LAYER_input model settings)
set(ARBO_LAYER_midi input model settings sound)
set(ARBO_LAYER_osc input model settings sound)
set(ARBO_LAYER_scenes model settings sound)
set(ARBO_LAYER_display model notation settings sound)
set(ARBO_LAYER_updater "")
set(ARBO_LAYER_ui display input midi model notation recording scenes settings sound tuning
    updater)
set(ARBO_LAYER_app display input midi model notation osc recording scenes settings sound
    tuning ui updater)
set(ARBO_LAYER_tools input model notation recording settings sound tuning)
# Only arbo.cpp may look up from model to sound (see above).
set(ARBO_LAYER_EXCEPTIONS "model/arbo.cpp:sound")
