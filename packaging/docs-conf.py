"""How script/docs makes pages of the documents."""

from pygments.lexers.special import TextLexer

project = "Quillorbeacon"
extensions = ["myst_parser"]
# A link to a heading names it as GitHub does.
myst_heading_anchors = 4
html_theme = "alabaster"
html_theme_options = {"page_width": "72em", "sidebar_width": "14em", "fixed_sidebar": True}
html_sidebars = {"**": ["searchbox.html", "globaltoc.html"]}
html_copy_source = False
html_show_sourcelink = False
highlight_language = "none"


def setup(app):
    """Examples of the documents' own kinds, and what the highlighter does not know, are plain text."""
    for name in ("exchange", "board", "nft"):
        app.add_lexer(name, TextLexer)
