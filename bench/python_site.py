"""What bench/web --python asks Flask for: the page of the other programs of bench/."""

import os
import pathlib

import flask

application = flask.Flask(__name__)
page = pathlib.Path(os.environ["PAGE"]).read_text()


@application.route("/page/1024")
def answer():
    return page
