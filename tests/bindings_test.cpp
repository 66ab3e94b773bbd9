// placeholder: filled by the shadow-state work
