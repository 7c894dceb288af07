// Only for the precompiled headers that every target uses: they belong to a target, and a target
// has a source.
