file(REMOVE_RECURSE
  "libmediawalk_core.a"
)
