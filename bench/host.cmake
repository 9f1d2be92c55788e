# Of the portable parts, optimised, on this machine.
