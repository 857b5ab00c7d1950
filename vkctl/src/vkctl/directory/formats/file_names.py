"""Names of the files in a working directory; of stems where each load case has one of its own."""

OPTIONS_FILE = "vk_rund_cmd.txt"
LOG_FILE = "vk_rund_log.txt"
LABELS = "vkctl.labels"
SETS = "vkctl.sets"
CASE_NOTES = "vkctl.case"

MATERIALS = "mx.mats"
NODES = "mx.nodes"
ELEMENTS = "mx.elems"

NODE_FLAGS = "mxs.nodeflags"
ELEMENT_FLAGS = "mxs.elemflags"
TP_INDEX = "mxs.tpadr"
TP = "mxs.tp"
STRUCTURE = "mxs.sadr"
LOAD_CASES = "mxs.lcdata"
LOAD_CASE_FLAGS = "mxs.lcflags"

LOAD_CASE_MAP_STEM = "mxs.lcmap"
DISPLACEMENTS_STEM = "ws.sstate"
ELEMENT_STATE_STEM = "ws.mstate"
CRITERION_STEM = "ws.tcval"
STRESS_STEM = "ws.amsval"
MAGNITUDE_STEM = "ws.disval"
TOTALS_STEM = "ws.comval"
# Results that the next run reads, and all: the totals last, which tell that the rest is there.
READ_BACK_STEMS = (DISPLACEMENTS_STEM, ELEMENT_STATE_STEM, CRITERION_STEM)
RESULT_STEMS = (*READ_BACK_STEMS, STRESS_STEM, MAGNITUDE_STEM, TOTALS_STEM)

RESULT_PREFIX = "ws."
FOUR_DIGITS = "[0-9][0-9][0-9][0-9]"  # of a load case's number, for a search by pattern
